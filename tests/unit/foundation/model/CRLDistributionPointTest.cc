#include "foundation/model/GeneralNames.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <chrono>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

std::list<RefCRLDistributionPoint> pointsOf(const std::vector<Pki::DistributionPoint>& points) {
  const Pki::Issued issued = Pki::issue({.crlDistributionPoints = points});
  return Pki::handle(issued)->crlDistributionPoints();
}

RefCRLDistributionPointName nameOf(const Pki::DistributionPoint& point) {
  return pointsOf({point}).front()->distributionPointName();
}

TEST(CRLDistributionPoint, SeveralPoints_InTheOrderOfTheExtension) {
  const std::list<RefCRLDistributionPoint> points =
      pointsOf({{.fullNames = {"URI:http://a/1", "dirName:CN=A", "URI:ldap://b/2"}},
                {.crlIssuers = {"dirName:CN=B", "DNS:c"}},
                {.relativeName = "CN=CRL1+O=x", .crlIssuers = {"dirName:CN=D"}}});
  ASSERT_EQ(points.size(), 3U);
  auto point = points.begin();

  EXPECT_EQ((*point)->distributionPointName()->type(), 0);
  const std::list<RefGeneralName> names = (*point)->distributionPointName()->fullName();
  ASSERT_EQ(names.size(), 3U);
  EXPECT_EQ(names.front()->uri().asString(), "http://a/1");
  EXPECT_EQ((*std::next(names.begin()))->dn().asString(), "CN=A");
  EXPECT_EQ(names.back()->uri().asString(), "ldap://b/2");
  EXPECT_EQ((*point)->distributionPointName()->relativeName(), "");
  EXPECT_TRUE((*point)->issuers().empty());

  ++point;
  EXPECT_TRUE((*point)->distributionPointName().empty());
  ASSERT_EQ((*point)->issuers().size(), 2U);
  EXPECT_EQ((*point)->issuers().front()->dn().asString(), "CN=B");
  EXPECT_EQ((*point)->issuers().back()->type(), GEN_DNS);

  ++point;
  EXPECT_EQ((*point)->distributionPointName()->type(), 1);
  EXPECT_TRUE((*point)->distributionPointName()->fullName().empty());
  EXPECT_EQ(DistinguishedName((*point)->distributionPointName()->relativeName()),
            DistinguishedName("O=x+CN=CRL1"));
}

TEST(CRLDistributionPoint, Reasons_CutToThoseDefinedAndAllWhenAbsent) {
  struct Row {
    int given;
    unsigned int expected;
  };
  const Row rows[] = {
      {Pki::kAbsent, 0x807f},
      {0x807f, 0x807f},
      {0x02, 0x02},
      {0x8000, 0x8000},
      {0x8040, 0x8040},
      // Bit 0, which RFC 5280 leaves unused, is 0x80 in OpenSSL's count.
      {0xff, 0x7f},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.given);
    EXPECT_EQ(pointsOf({{.fullNames = {"URI:http://a/"}, .reasons = row.given}}).front()->reasons(),
              row.expected);
  }
}

// Not DER, which wants at least one bit of a list of named ones that is there; OpenSSL reads it.
TEST(CRLDistributionPoint, ReasonsWithoutABit_AreNone) {
  const std::string extension = "\x30\x14\x30\x12\xa0\x0d\xa0\x0b\x86\x09http://a/\x81\x01\x00"s;
  const Pki::Issued issued = Pki::issue({.rawExtensions = {{"2.5.29.31", false, extension}}});
  const auto points = Pki::handle(issued)->crlDistributionPoints();
  ASSERT_EQ(points.size(), 1U);
  EXPECT_EQ(points.front()->reasons(), 0U);
}

// Octets that are no UTF-8 are no name; whichever point has them, and however long its name is.
TEST(CRLDistributionPoint, RelativeNameThatIsNone_IsRefusedWithAllOfTheExtension) {
  const auto attribute = [](const std::string& value) {
    return "\x30\x08\x06\x03\x55\x04\x03\x0c\x01"s + value;
  };
  const auto point = [](const std::string& attributes) {
    const auto wrapped = [](char tag, const std::string& content) {
      return std::string(1, tag) + '\x82' + static_cast<char>(content.size() >> 8) +
             static_cast<char>(content.size() & 0xff) + content;
    };
    return wrapped('\x30', wrapped('\xa0', wrapped('\xa1', attributes)));
  };
  const auto read = [](const std::string& points) {
    std::string extension = "\x30\x82"s;
    extension += static_cast<char>(points.size() >> 8);
    extension += static_cast<char>(points.size() & 0xff);
    const Pki::Issued issued =
        Pki::issue({.rawExtensions = {{"2.5.29.31", false, extension + points}}});
    return Pki::handle(issued)->crlDistributionPoints().size();
  };
  std::string many;
  for (char c = 'A'; c <= 'Z'; ++c) many += attribute(std::string(1, c));
  EXPECT_EQ(read(point(attribute("a")) + point(many)), 2U);
  EXPECT_THROW(read(point(attribute("a")) + point(attribute("\xff"))), Exception);
  EXPECT_THROW(read(point(attribute("a")) + point(many + attribute("\xff"))), Exception);
}

// What is decoded once is shared; a name outlives the point that it was taken from.
TEST(CRLDistributionPoint, NamesOutliveTheirPoint) {
  const RefGeneralName name = nameOf({.fullNames = {"dirName:CN=A"}})->fullName().front();
  const DistinguishedName issuer =
      pointsOf({{.crlIssuers = {"dirName:CN=B"}}}).front()->issuers().front()->dn();
  EXPECT_EQ(name->dn().asString(), "CN=A");
  EXPECT_EQ(issuer.asString(), "CN=B");
}

// OpenSSL's object is the caller's again when it was copied.
TEST(CRLDistributionPoint, Copy_OutlivesWhatWasCopied) {
  Owned<DIST_POINT> native(DIST_POINT_new());
  native->distpoint = DIST_POINT_NAME_new();
  native->CRLissuer = GENERAL_NAMES_new();
  ASSERT_GT(sk_GENERAL_NAME_push(native->CRLissuer, Pki::makeGeneralName("dirName:CN=B").release()),
            0);
  const RefCRLDistributionPoint point(native.get());
  native.reset();
  EXPECT_EQ(point->issuers().front()->dn().asString(), "CN=B");
  EXPECT_EQ(countOf(point->nativeIssuers()), 1);
  EXPECT_EQ(point->reasons(), kAllReasons);
  EXPECT_TRUE(RefCRLDistributionPoint(static_cast<const DIST_POINT*>(nullptr)).empty());
}

// A name of neither type, which nothing decodes to, is a full name of none.
TEST(CRLDistributionPointName, WithoutAType_HasNoNames) {
  const Owned<DIST_POINT_NAME> native(DIST_POINT_NAME_new());
  const RefCRLDistributionPointName name(native.get());
  EXPECT_EQ(name->type(), CRLDistributionPointName::kFullName);
  EXPECT_TRUE(name->fullName().empty());
  EXPECT_EQ(name->nativeFullName(), nullptr);
  EXPECT_EQ(name->relativeName(), "");
  EXPECT_TRUE(*name.get() != *name.get());
}

TEST(CRLDistributionPointName, Compared_FullNamesByOneInCommonRelativeByRdnNeverMixed) {
  struct Row {
    Pki::DistributionPoint left;
    Pki::DistributionPoint right;
    bool equal;
  };
  const Row rows[] = {
      {{.fullNames = {"URI:http://a/"}}, {.fullNames = {"URI:http://a/"}}, true},
      {{.fullNames = {"URI:http://a/", "URI:http://b/"}},
       {.fullNames = {"URI:http://c/", "URI:http://b/"}},
       true},
      {{.fullNames = {"URI:http://a/", "URI:http://b/"}}, {.fullNames = {"URI:http://c/"}}, false},
      {{.fullNames = {"dirName:C=DE,CN=A"}}, {.fullNames = {"dirName:C=de,CN=a"}}, true},
      {{.relativeName = "CN=A"}, {.relativeName = "CN=a"}, true},
      {{.relativeName = "CN=A"}, {.relativeName = "CN=B"}, false},
      {{.relativeName = "CN=A+O=B"}, {.relativeName = "O=B+CN=A"}, true},
      {{.relativeName = "CN=A+O=B"}, {.relativeName = "CN=A"}, false},
      {{.fullNames = {"dirName:CN=A"}}, {.relativeName = "CN=A"}, false},
      {{.relativeName = "CN=A"}, {.fullNames = {"dirName:CN=A"}}, false},
  };
  int number = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(number++);
    const RefCRLDistributionPointName left = nameOf(row.left);
    const RefCRLDistributionPointName right = nameOf(row.right);
    EXPECT_EQ(*left.get() == *right.get(), row.equal);
    EXPECT_EQ(*left.get() != *right.get(), !row.equal);
  }
}

// Longer lists are compared in another way, which has to tell the same.
TEST(CRLDistributionPointName, LongListsCompared_ByOneInCommonOfEachType) {
  std::vector<std::string> many;
  for (int i = 0; i < 20; ++i) many.push_back("URI:http://many/" + std::to_string(i));
  struct Row {
    const char* left;
    const char* right;
    bool equal;
  };
  const Row rows[] = {
      {"URI:http://a/", "URI:http://a/", true},
      {"URI:http://a/", "URI:http://b/", false},
      {"URI:a.test", "DNS:a.test", false},
      {"email:a@b.test", "email:a@b.test", true},
      {"email:a@b.test", "email:A@b.test", false},
      {"dirName:C=DE,CN=A", "dirName:C=de,CN=a", true},
      {"dirName:C=DE,CN=A", "dirName:CN=A,C=DE", false},
      {"IP:10.0.0.1", "IP:10.0.0.1", true},
      {"IP:10.0.0.1", "IP:10.0.0.2", false},
      {"RID:1.2.3", "RID:1.2.3", true},
      {"RID:1.2.3", "RID:1.2.4", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.left) + " / " + row.right);
    for (const std::size_t place : {std::size_t{0}, std::size_t{10}, std::size_t{20}}) {
      std::vector<std::string> left = many;
      left.insert(left.begin() + static_cast<std::ptrdiff_t>(place), row.left);
      std::vector<std::string> right(15, row.right);
      for (std::size_t i = 0; i < right.size() - 1; ++i) right[i] = "DNS:" + std::to_string(i);
      const RefCRLDistributionPointName one = nameOf({.fullNames = left});
      const RefCRLDistributionPointName other = nameOf({.fullNames = right});
      EXPECT_EQ(*one.get() == *other.get(), row.equal);
      EXPECT_EQ(*other.get() == *one.get(), row.equal);
    }
  }
}

// The types for which OpenSSL's configuration has no words: otherName, ediPartyName, x400Address.
TEST(CRLDistributionPointName, LongListsOfRareTypes_ComparedAsSingleNamesAre) {
  using namespace std::string_literals;
  const std::vector<std::string> encodings = {
      "\xa0\x07\x06\x02\x2a\x03\xa0\x01\x05"s,  // cut short, which is nothing
      "\xa0\x08\x06\x02\x2a\x03\xa0\x02\x05\0"s,
      "\xa0\x08\x06\x02\x2a\x04\xa0\x02\x05\0"s,
      "\xa0\x09\x06\x02\x2a\x03\xa0\x03\x01\x01\xff"s,
      "\xa0\x09\x06\x02\x2a\x03\xa0\x03\x01\x01\0"s,
      "\xa0\x09\x06\x02\x2a\x03\xa0\x03\x0c\x01\x61"s,
      "\xa0\x09\x06\x02\x2a\x03\xa0\x03\x0c\x01\x62"s,
      "\xa0\x09\x06\x02\x2a\x03\xa0\x03\x13\x01\x61"s,
      "\xa0\x0a\x06\x02\x2a\x03\xa0\x04\x06\x02\x2a\x05"s,
      "\xa5\x05\xa1\x03\x0c\x01\x61"s,
      "\xa5\x05\xa1\x03\x0c\x01\x62"s,
      "\xa5\x0a\xa0\x03\x0c\x01\x61\xa1\x03\x0c\x01\x61"s,
      "\xa5\x0a\xa0\x03\x0c\x01\x62\xa1\x03\x0c\x01\x61"s,
      "\xa3\x02\x30\0"s,
      "\xa3\x03\x30\x01\0"s,
      "\x88\x02\x2a\x03"s,
      "\x86\x01\x61"s,
      "\x82\x01\x61"s,
  };
  const auto pointName = [](const std::vector<std::string>& names) {
    const ErrorScope errors;
    std::string content;
    for (const std::string& name : names) content += name;
    const std::string der = "\xa0\x82"s + static_cast<char>(content.size() >> 8) +
                            static_cast<char>(content.size() & 0xff) + content;
    const auto* position = reinterpret_cast<const unsigned char*>(der.data());
    const Owned<DIST_POINT_NAME> native(
        d2i_DIST_POINT_NAME(nullptr, &position, static_cast<long>(der.size())));
    return RefCRLDistributionPointName(native.get());
  };
  std::vector<std::string> usable;
  for (const std::string& encoding : encodings) {
    if (!pointName({encoding}).empty()) usable.push_back(encoding);
  }
  ASSERT_GE(usable.size(), 14U);
  for (const std::string& left : usable) {
    for (const std::string& right : usable) {
      SCOPED_TRACE(::testing::PrintToString(left) + " / " + ::testing::PrintToString(right));
      // Sixteen more that are the other list's in no case.
      std::vector<std::string> one = {left};
      std::vector<std::string> other = {right};
      for (char c = 'A'; c <= 'P'; ++c) {
        one.push_back("\x86\x02<"s + c);
        other.push_back("\x86\x02>"s + c);
      }
      EXPECT_EQ(*pointName(one).get() == *pointName(other).get(),
                *pointName({left}).get() == *pointName({right}).get());
    }
  }
}

// A stranger writes both lists: the certificate's, and those of the CRL that it leads to.
TEST(CRLDistributionPointName, ManyNamesWithoutOneInCommon_ComparedInNoTime) {
  constexpr int kMany = 50000;
  const auto names = [](char first) {
    const Owned<DIST_POINT_NAME> native(DIST_POINT_NAME_new());
    native->type = 0;
    native->name.fullname = GENERAL_NAMES_new();
    for (int i = 0; i < kMany; ++i) {
      GENERAL_NAME* const name = GENERAL_NAME_new();
      ASN1_IA5STRING* const text = ASN1_IA5STRING_new();
      EXPECT_EQ(ASN1_STRING_set(text, (first + std::to_string(kMany + i)).c_str(), -1), 1);
      GENERAL_NAME_set0_value(name, GEN_URI, text);
      EXPECT_GT(sk_GENERAL_NAME_push(native->name.fullname, name), 0);
    }
    return RefCRLDistributionPointName(native.get());
  };
  const RefCRLDistributionPointName left = names('a');
  const RefCRLDistributionPointName right = names('b');
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(*left.get() == *right.get());
  // Each with each takes more than a minute.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(CRLDistributionPointName, ComparedWithAName_EqualWhenItHoldsThatDirectoryName) {
  const DistinguishedName name("CN=A,C=DE");
  EXPECT_FALSE(*nameOf({.fullNames = {"URI:http://a/", "dirName:C=DE,CN=A"}}).get() != name);
  EXPECT_TRUE(*nameOf({.fullNames = {"URI:http://a/", "dirName:C=DE,CN=A"}}).get() == name);
  EXPECT_TRUE(*nameOf({.fullNames = {"dirName:CN=A"}}).get() != name);
  EXPECT_TRUE(*nameOf({.fullNames = {"URI:http://a/"}}).get() != name);
  EXPECT_TRUE(*nameOf({.relativeName = "CN=A"}).get() != DistinguishedName("CN=A"));
  // A general name of another type is not the empty directory name.
  EXPECT_TRUE(*nameOf({.fullNames = {"URI:http://a/"}}).get() != DistinguishedName());
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
