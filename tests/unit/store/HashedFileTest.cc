// Which file is read, and by whom; what is read is held against OpenSSL in SharedDirectoryLookupTest.cc.
#include "foundation/base/FileReader.h"
#include "store/HashedFile.h"
#include "support/Files.h"
#include "support/Pki.h"

#include <openssl/err.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <sys/stat.h>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::HashedFile;
using Kind = HashedFile::Kind;
using State = HashedFile::State;

class HashedFileTest : public testing::Test {
 protected:
  HashedFile read(Kind kind = Kind::kCertificates, int fileType = X509_FILETYPE_PEM) const {
    return HashedFile::at((directory / "file").string(), kind, fileType);
  }
  void write(const std::string& content) const { writeFile(directory / "file", content); }

  TempDir directory;
};

TEST_F(HashedFileTest, NoFile_IsMissing) {
  EXPECT_EQ(read().state, State::kMissing);
  std::filesystem::create_symlink("nowhere", directory / "file");
  EXPECT_EQ(read().state, State::kMissing);
}

// Opening a FIFO waits for who writes to it.
TEST_F(HashedFileTest, WhatIsNoPlainFile_IsOddAndNotOpened) {
  ASSERT_EQ(::mkfifo((directory / "file").c_str(), 0600), 0);
  EXPECT_EQ(read().state, State::kOdd);
  std::filesystem::remove(directory / "file");
  std::filesystem::create_directory(directory / "file");
  EXPECT_EQ(read().state, State::kOdd);
}

TEST_F(HashedFileTest, FileThatIsTooLarge_IsOdd) {
  write("");
  std::filesystem::resize_file(directory / "file", kMaxInputSize + 1);
  EXPECT_EQ(read().state, State::kOdd);
}

TEST_F(HashedFileTest, Fault_LeavesWhatStandsBeforeIt) {
  const Issued ca = issueCA("CN=A");
  const std::string fault = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  write(pem(ca.get()) + fault + pem(ca.get()));
  const HashedFile file = read();
  EXPECT_EQ(file.state, State::kDamaged);
  EXPECT_EQ(file.content->certificates.size(), 1U);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(HashedFileTest, Objects_AreTheKindsAndInTheirOrder) {
  const Issued first = issueCA("CN=A");
  const Issued second = issueCA("CN=B");
  const auto crl = makeCRL({.issuer = &first});
  write(pem(first.get()) + pem(crl.get()) + pem(second.get()));
  const HashedFile certificates = read();
  EXPECT_EQ(certificates.state, State::kWhole);
  ASSERT_EQ(certificates.content->certificates.size(), 2U);
  EXPECT_EQ(der(certificates.content->certificates.front().get()), der(first.get()));
  const HashedFile crls = read(Kind::kCRLs);
  EXPECT_EQ(crls.state, State::kWhole);
  EXPECT_EQ(crls.content->crls.size(), 1U);
  EXPECT_EQ(read(Kind::kCRLs, X509_FILETYPE_ASN1).state, State::kDamaged);
  write(der(first.get()) + der(second.get()));
  const HashedFile only = read(Kind::kCertificates, X509_FILETYPE_ASN1);
  EXPECT_EQ(only.state, State::kWhole);
  EXPECT_EQ(only.content->certificates.size(), 1U);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(HashedFileTest, Names_AreThoseOfItsObjects) {
  const Issued ca = issueCA("CN=A");
  const Owned<X509_NAME> other = makeName("CN=B");
  write(pem(ca.get()));
  EXPECT_TRUE(read().content->has(X509_get_subject_name(ca.get())));
  EXPECT_FALSE(read().content->has(other.get()));
  write(pem(makeCRL({.issuer = &ca}).get()));
  EXPECT_TRUE(read(Kind::kCRLs).content->has(X509_get_subject_name(ca.get())));
  EXPECT_FALSE(read(Kind::kCRLs).content->has(other.get()));
}

TEST_F(HashedFileTest, Memory_IsThatOfItsObjects) {
  const Issued ca = issueCA("CN=A");
  write(pem(ca.get()));
  const std::size_t one = read().content->memory();
  EXPECT_GT(one, 5 * der(ca.get()).size());
  write(pem(ca.get()) + pem(ca.get()));
  EXPECT_GT(read().content->memory(), one + 5 * der(ca.get()).size());
}

// OpenSSL notes in the object that it could not read all of it, be it for want of memory.
TEST_F(HashedFileTest, CertificateThatIsNotUnderstood_IsHandedOutAndNotKept) {
  const Issued broken = issue({.rawExtensions = {{.oid = "2.5.29.30", .der = "x"}}});
  write(pem(broken.get()) + pem(issueCA("CN=A").get()));
  const HashedFile file = read();
  EXPECT_EQ(file.state, State::kWhole);
  EXPECT_EQ(file.content->certificates.size(), 2U);
  EXPECT_EQ(file.content->memory(), std::numeric_limits<std::size_t>::max());
}

}  // namespace
}  // namespace Velantrix::Test
