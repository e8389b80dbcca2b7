#include "retrieval/FetchDesk.h"
#include "retrieval/IssuerHints.h"
#include "support/Handles.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

const Uri kHinted("http://crl.example/ca.crl");

class IssuerHintsTest : public testing::Test {
 protected:
  const Issued root = issueCA("CN=Root");
  const Issued ca = issueCA("CN=CA", &root);
  TempDir cache;
  IssuerHints hints{cache.string()};

  void expectRecalled(const std::vector<Issued>& expected, const Uri& uri = kHinted) {
    const std::vector<RefCertificate> found = hints.recall(uri);
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(X509_cmp(found[i], expected[i].get()), 0) << i;
    }
  }
};

TEST_F(IssuerHintsTest, WhatIsRemembered_IsRecalledForThatURIOnly) {
  expectRecalled({});
  hints.remember(kHinted, {handle(ca), handle(root)});
  expectRecalled({ca, root});
  expectRecalled({ca, root}, Uri("HTTP://CRL.example:80/ca.crl"));
  expectRecalled({}, Uri("http://crl.example/cb.crl"));
  hints.remember(kHinted, {handle(root)});
  expectRecalled({root});
}

TEST_F(IssuerHintsTest, Files_LieWhereNoScanOfTheCacheLooks) {
  hints.remember(kHinted, {handle(ca)});
  const std::filesystem::path file = hints.fileOf(kHinted);
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(file.parent_path(), cache / FetchDesk::kSubdirectory);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(cache.path()), {}), 1);
}

TEST_F(IssuerHintsTest, WhatIsKnownAlready_IsNotWrittenAgain) {
  hints.remember(kHinted, {handle(ca)});
  const auto then = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  std::filesystem::last_write_time(hints.fileOf(kHinted), then);
  hints.remember(kHinted, {handle(ca)});
  EXPECT_EQ(std::filesystem::last_write_time(hints.fileOf(kHinted)), then);
  hints.remember(kHinted, {});
  expectRecalled({ca});
}

TEST_F(IssuerHintsTest, TooMany_AreCutWithoutATornOne) {
  hints.remember(kHinted, std::vector<RefCertificate>(100, handle(ca)));
  expectRecalled(std::vector<Issued>(IssuerHints::kMaximumCertificates, ca));
  const Issued large =
      issue({.subject = "CN=CA",
             .rawExtensions = {{"1.2.3.4", false, "\x04\x82\x75\x30" + std::string(30'000, 'x')}}});
  hints.remember(kHinted, {handle(large), handle(ca)});
  expectRecalled({large, ca});
  hints.remember(kHinted, {handle(ca), handle(large), handle(large)});
  expectRecalled({ca, large});
  EXPECT_LE(std::filesystem::file_size(hints.fileOf(kHinted)), IssuerHints::kMaximumSize);
}

TEST_F(IssuerHintsTest, WhatSomebodyElsePutThere_IsNotBelieved) {
  hints.remember(kHinted, {handle(ca)});
  const std::filesystem::path file = hints.fileOf(kHinted);
  for (const std::string& content :
       {std::string("no PEM"), std::string(), std::string("-----BEGIN CERTIFICATE-----\nAAAA\n"),
        pem(ca.get()) + std::string(IssuerHints::kMaximumSize, '\n')}) {
    writeFile(file, content);
    expectRecalled({});
  }
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  expectRecalled({});
  hints.remember(kHinted, {handle(ca)});  // which cannot be done, and nobody is told
  expectRecalled({});
}

TEST_F(IssuerHintsTest, CacheThatIsNotThere_RemembersNothing) {
  const IssuerHints none((cache / "none").string());
  none.remember(kHinted, {handle(ca)});
  EXPECT_TRUE(none.recall(kHinted).empty());
}

}  // namespace
}  // namespace Velantrix::Test
