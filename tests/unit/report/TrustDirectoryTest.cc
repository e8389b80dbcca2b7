#include "report/TrustDirectory.h"
#include "support/Files.h"
#include "support/Handles.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using Crypto::PKX509::DistinguishedName;
using Crypto::PKX509::faultOfTrustDirectory;
using Crypto::PKX509::fileInDirectories;
using Crypto::PKX509::Rule;
using Crypto::PKX509::TrustDirectoryFault;

class TrustDirectory : public testing::Test {
 protected:
  // "no fault", or the rule's name with the file.
  std::string fault(const std::string& directories, const Issued& issuer) const {
    const std::optional<TrustDirectoryFault> found =
        faultOfTrustDirectory(directories, handle(issuer)->subject());
    if (!found) return "no fault";
    EXPECT_EQ(found->reason.empty(), found->rule == Rule::kTrustDirectoryEmpty);
    return std::string(factsOf(found->rule).name) +
           (found->file.empty() ? "" : " " + fs::relative(found->file, temporary_.path()).string());
  }
  std::string make(const std::string& name) const {
    fs::create_directory(temporary_ / name);
    return (temporary_ / name).string();
  }

  TempDir temporary_;
  const Issued root_ = issueCA("CN=Root");
  const Issued another_ = issueCA("CN=Another");
};

TEST_F(TrustDirectory, None_IsNotAtFault) {
  EXPECT_EQ(fault("", root_), "no fault");
  EXPECT_EQ(fault(":", root_), "no fault");
  EXPECT_EQ(fileInDirectories("", handle(root_)), "");
}

TEST_F(TrustDirectory, Missing) {
  EXPECT_EQ(fault((temporary_ / "none").string(), root_), "trust-directory-missing");
  writeFile(temporary_ / "file", "");
  EXPECT_EQ(fault((temporary_ / "file").string(), root_), "trust-directory-missing");
}

TEST_F(TrustDirectory, WithoutNamesOfHashes_IsEmpty) {
  const std::string directory = make("trusted");
  EXPECT_EQ(fault(directory, root_), "trust-directory-empty");
  // OpenSSL finds none of these.
  for (const char* const name : {"root.pem", "0a6481c9", "0a6481c9.", "0a6481c9.r0", "0A6481C9.0",
                                 "0a6481c.0", "0a6481c9.0~"}) {
    writeFile(fs::path(directory) / name, pem(root_.get()));
  }
  EXPECT_EQ(fault(directory, root_), "trust-directory-empty");
  addToDirectory(directory, another_.get());
  EXPECT_EQ(fault(directory, root_), "no fault");
}

TEST_F(TrustDirectory, DamagedFile_IsNamed) {
  const std::string directory = make("trusted");
  const fs::path file = fs::path(directory) / hashName(root_.get());
  writeFile(file, "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
  EXPECT_EQ(fault(directory, root_), "trust-file-unreadable trusted/" + hashName(root_.get()));
  EXPECT_EQ(fault(directory, another_), "no fault");
  writeFile(file, "");
  EXPECT_EQ(fault(directory, root_), "trust-file-unreadable trusted/" + hashName(root_.get()));
  writeFile(file, pem(root_.get()));
  EXPECT_EQ(fault(directory, root_), "no fault");
  // Behind one of the same name that can be read.
  writeFile(fs::path(directory) / hashName(root_.get(), 1), "");
  EXPECT_EQ(fault(directory, root_), "trust-file-unreadable trusted/" + hashName(root_.get(), 1));
}

// A link that leads nowhere, and a directory in a file's place: they cannot be read by root either.
TEST_F(TrustDirectory, UnreadableFile_IsNamed) {
  const std::string directory = make("trusted");
  fs::create_symlink("nowhere", fs::path(directory) / hashName(root_.get()));
  EXPECT_EQ(fault(directory, root_), "trust-file-unreadable trusted/" + hashName(root_.get()));
  fs::create_directory(fs::path(directory) / hashName(another_.get()));
  EXPECT_EQ(fault(directory, another_),
            "trust-file-unreadable trusted/" + hashName(another_.get()));
}

TEST_F(TrustDirectory, OfSeveral_AllHaveToBeAtFault) {
  const std::string missing = (temporary_ / "none").string();
  const std::string empty = make("empty");
  const std::string good = make("good");
  const std::string damaged = make("damaged");
  addToDirectory(good, another_.get());
  writeFile(fs::path(damaged) / hashName(root_.get()), "");
  EXPECT_EQ(fault(missing + ":" + empty, root_), "trust-directory-missing");
  EXPECT_EQ(fault(empty + "::" + missing, root_), "trust-directory-empty");
  EXPECT_EQ(fault(missing + ":" + good, root_), "no fault");
  EXPECT_EQ(fault(good + ":" + empty + ":", root_), "no fault");
  // But for a file of the issuer's name: that would have been it.
  const std::string file = "trust-file-unreadable damaged/" + hashName(root_.get());
  EXPECT_EQ(fault(damaged + ":" + good, root_), file);
  EXPECT_EQ(fault(good + ":" + damaged, root_), file);
  EXPECT_EQ(fault(missing + ":" + damaged, root_), file);
}

TEST_F(TrustDirectory, TrustedCertificate_IsFoundWithItsFile) {
  const std::string first = make("first");
  const std::string second = make("second");
  const Issued namesake = issueCA("CN=Root");
  addToDirectory(second, namesake.get());
  const fs::path file = addToDirectory(second, root_.get());
  addToDirectory(first, another_.get());
  EXPECT_EQ(fileInDirectories(first + ":" + second, handle(root_)), file.string());
  EXPECT_EQ(fileInDirectories(first + ":" + second, handle(namesake)),
            (fs::path(second) / hashName(root_.get(), 0)).string());
  EXPECT_EQ(fileInDirectories(first, handle(root_)), "");
}

}  // namespace
}  // namespace Velantrix::Test
