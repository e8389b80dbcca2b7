// The simple verifier of the shared library over the machine's own directories.
#include "support/LogCapture.h"
#include "support/PrivateView.h"
#include "unit/store/Unprivileged.h"
#include "unit/verify/World.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/SimpleVerifier.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;

constexpr char kCaught[] = "Cryptod::CMS::SimpleVerifier: Caught ";

class SimpleVerifierIntegration : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &inter});
  LogCapture log;

  SimpleVerifierIntegration() {
    clearPrivateView();
    addToDirectory(kCADirectory, root.get());
    addToDirectory(kCADirectory, inter.get());
    addToDirectory(kCRLDirectory, makeCRL({.issuer = &root}).get());
    interCRL = addToDirectory(kCRLDirectory, makeCRL({.issuer = &inter}).get());
  }
  ~SimpleVerifierIntegration() override {
    // A test may have put something else in their place.
    for (const char* directory : {kCADirectory, kCRLDirectory}) {
      fs::remove_all(directory);
      fs::create_directory(directory);
    }
  }

  static int isValid(const Issued& issued, int keyUsage = 0, bool require = false) {
    return SimpleVerifier::instance()->isValid(handle(issued), keyUsage, require);
  }
  // -1, and the last line is about an exception that names `path`.
  void expectCaught(int result, const std::string& path) {
    EXPECT_EQ(result, -1);
    ASSERT_FALSE(log.lines().empty());
    const std::string last = log.lines().back().text;
    EXPECT_TRUE(last.starts_with(kCaught)) << log.text();
    EXPECT_NE(last.find(path), std::string::npos) << log.text();
    log.clear();
  }

  fs::path interCRL;
};

TEST_F(SimpleVerifierIntegration, FixedDirectories_AreTheOnesThatTheLibraryNames) {
  EXPECT_STREQ(kCADirectory, "/opsadmin/etc/cert/server/ca");
  EXPECT_STREQ(kCADirectory, kCADirectory);
  EXPECT_STREQ(kCRLDirectory, kCRLDirectory);
}

TEST_F(SimpleVerifierIntegration, TrustAndCRLs_ComeFromTheFixedDirectories_AnewEachTime) {
  EXPECT_EQ(isValid(leaf), 0);
  EXPECT_EQ(isValid(leaf, KU_DIGITAL_SIGNATURE | KU_KEY_ENCIPHERMENT, true), 0);
  EXPECT_EQ(log.text(), "");
  writeFile(interCRL, pem(makeCRL({.issuer = &inter, .revoked = {{.serial = leaf}}}).get()));
  EXPECT_EQ(isValid(leaf), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(log.texts(), std::vector<std::string>{failureLine(leaf, X509_V_ERR_CERT_REVOKED)});
  fs::remove(interCRL);
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_CRL);
  writeFile(interCRL, pem(makeCRL({.issuer = &inter}).get()));
  EXPECT_EQ(isValid(leaf), 0);
  fs::remove(fs::path(kCADirectory) / hashName(root.get()));
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT);
  fs::remove(fs::path(kCADirectory) / hashName(inter.get()));
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(SimpleVerifierIntegration, TrustDirectory_IsReadAsPem) {
  writeFile(fs::path(kCADirectory) / hashName(root.get()), der(root.get()));
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT);
}

TEST_F(SimpleVerifierIntegration, KeyUsageThatDoesNotFit) {
  const Issued signer =
      issue({.subject = "O=Test,CN=Signer", .issuer = &inter, .keyUsage = KU_DIGITAL_SIGNATURE});
  EXPECT_EQ(isValid(signer, KU_KEY_ENCIPHERMENT, true), -1);
  EXPECT_EQ(isValid(signer, KU_KEY_ENCIPHERMENT, false), 0);
  EXPECT_EQ(log.texts(),
            std::vector<std::string>(
                2, "SimpleVerifier: Requested value is not present in the Key Usage."));
}

TEST_F(SimpleVerifierIntegration, MissingTrustDirectory_IsAnEmptyOne) {
  fs::remove_all(kCADirectory);
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  EXPECT_FALSE(log.contains(kCaught)) << log.text();
}

TEST_F(SimpleVerifierIntegration, UnreadableTrustDirectory_IsMinusOneWhenTheStoreHasToReadIt) {
  ASSERT_EQ(::chmod(kCADirectory, 0), 0);
  const Unprivileged bound;
  // OpenSSL's own lookup finds nothing there, and the store is not asked anything.
  EXPECT_EQ(isValid(leaf), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  EXPECT_FALSE(log.contains(kCaught)) << log.text();
  // With a path from elsewhere the store looks there for the issuers of CRLs.
  auto* const source = new MemorySource;
  source->certificates = {handle(root), handle(inter)};
  SimpleVerifier verifier;
  verifier.add(RefLookupMethod(source));
  expectCaught(verifier.isValid(handle(leaf), 0, false), kCADirectory);
  ASSERT_EQ(::chmod(kCADirectory, 0755), 0);
  EXPECT_EQ(verifier.isValid(handle(leaf), 0, false), 0) << log.text();
}

TEST_F(SimpleVerifierIntegration, WhatIsBrokenInTheCRLDirectory_IsMinusOne) {
  writeFile(interCRL, "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n");
  expectCaught(isValid(leaf), interCRL.string());
  fs::remove_all(kCRLDirectory);
  writeFile(kCRLDirectory, "no directory");
  expectCaught(isValid(leaf), kCRLDirectory);
  fs::remove(kCRLDirectory);
  fs::create_directory(kCRLDirectory);
  addToDirectory(kCRLDirectory, makeCRL({.issuer = &root}).get());
  addToDirectory(kCRLDirectory, makeCRL({.issuer = &inter}).get());
  EXPECT_EQ(isValid(leaf), 0);
}

}  // namespace
}  // namespace Velantrix::Test
