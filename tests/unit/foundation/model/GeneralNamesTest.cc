#include "foundation/model/GeneralNames.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Pki.h"

#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

Owned<GENERAL_NAMES> stackOf(const std::vector<std::string>& texts) {
  Owned<GENERAL_NAMES> stack(GENERAL_NAMES_new());
  for (const std::string& text : texts) {
    EXPECT_GT(sk_GENERAL_NAME_push(stack.get(), Pki::makeGeneralName(text).release()), 0);
  }
  return stack;
}

std::list<RefGeneralName> listOf(const std::vector<std::string>& texts) {
  return generalNames(stackOf(texts));
}

bool inCommon(const std::vector<std::string>& left, const std::vector<std::string>& right) {
  return haveOneInCommon(stackOf(left).get(), stackOf(right).get());
}

TEST(GeneralNames, Handles_InTheirOrderAndKeepTheStack) {
  const std::list<RefGeneralName> names = listOf({"URI:http://a/", "dirName:CN=A", "DNS:a"});
  ASSERT_EQ(names.size(), 3U);
  auto name = names.begin();
  EXPECT_EQ((*name)->uri().asString(), "http://a/");
  EXPECT_EQ((*++name)->dn().asString(), "CN=A");
  EXPECT_EQ((*++name)->type(), GEN_DNS);
}

TEST(GeneralNames, NullOrEmptyStack_HasNone) {
  EXPECT_TRUE(generalNames(nullptr).empty());
  EXPECT_TRUE(listOf({}).empty());
}

// Lists of more than eight are compared in another way, which has to tell the same.
TEST(GeneralNames, OneInCommon_WhereverItStandsAndHoweverLongTheLists) {
  struct Row {
    const char* left;
    const char* right;
    bool common;
  };
  const Row rows[] = {
      {"URI:http://a/", "URI:http://a/", true},
      {"URI:http://a/", "URI:http://b/", false},
      {"URI:a.test", "DNS:a.test", false},
      {"dirName:C=DE,CN=A", "dirName:C=de,CN=a", true},
      {"dirName:CN=A", "dirName:CN=A,C=DE", false},
      {"IP:10.0.0.1", "IP:10.0.0.1", true},
      {"RID:1.2.3", "RID:1.2.4", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.left) + " / " + row.right);
    for (const std::size_t others :
         {std::size_t{0}, std::size_t{7}, std::size_t{8}, std::size_t{20}}) {
      std::vector<std::string> left = {row.left};
      std::vector<std::string> right;
      for (std::size_t i = 0; i < others; ++i) {
        left.push_back("URI:http://left/" + std::to_string(i));
        right.push_back("DNS:" + std::to_string(i));
      }
      right.emplace_back(row.right);
      EXPECT_EQ(inCommon(left, right), row.common) << others;
      EXPECT_EQ(inCommon(right, left), row.common) << others;
    }
  }
}

TEST(GeneralNames, EmptyList_HasNothingInCommon) {
  EXPECT_FALSE(inCommon({}, {}));
  EXPECT_FALSE(inCommon({"DNS:a"}, {}));
  EXPECT_FALSE(inCommon({}, {"DNS:a"}));
  EXPECT_FALSE(haveOneInCommon(nullptr, nullptr));
  EXPECT_FALSE(haveOneInCommon(stackOf({"DNS:a"}).get(), nullptr));
}

TEST(GeneralNames, DirectoryName_IsHeldOrNot) {
  const DistinguishedName name("CN=A,C=DE");
  EXPECT_TRUE(holdDirectoryName(stackOf({"DNS:a", "dirName:C=de,CN=a"}).get(), name));
  EXPECT_FALSE(holdDirectoryName(stackOf({"DNS:a", "dirName:CN=A"}).get(), name));
  EXPECT_FALSE(holdDirectoryName(stackOf({"DNS:a"}).get(), DistinguishedName()));
  EXPECT_FALSE(holdDirectoryName(stackOf({"dirName:CN=A"}).get(), DistinguishedName()));
  const Owned<GENERAL_NAMES> nameless = stackOf({"DNS:a"});
  GENERAL_NAME* const empty = GENERAL_NAME_new();
  GENERAL_NAME_set0_value(empty, GEN_DIRNAME, X509_NAME_new());
  ASSERT_GT(sk_GENERAL_NAME_push(nameless.get(), empty), 0);
  EXPECT_TRUE(holdDirectoryName(nameless.get(), DistinguishedName()));
  EXPECT_FALSE(holdDirectoryName(nameless.get(), name));
  EXPECT_FALSE(holdDirectoryName(nullptr, name));
}

TEST(GeneralNames, SingleOne_KeepsTheStackToo) {
  std::shared_ptr<const GENERAL_NAMES> names = stackOf({"DNS:a", "dirName:CN=A"});
  EXPECT_EQ(countOf(names), 2);
  EXPECT_EQ(countOf(nullptr), 0);
  const RefGeneralName second = generalName(names, 1);
  const DistinguishedName name = second->dn();
  EXPECT_EQ(second->native(), sk_GENERAL_NAME_value(names.get(), 1));
  names.reset();
  EXPECT_EQ(name.asString(), "CN=A");
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
