// The example of a store with an LDAP directory, run with OpenLDAP's server.
#include "support/Command.h"
#include "support/Files.h"
#include "support/Pki.h"
#include "support/Slapd.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

// The root comes from the directory of trusted certificates, the intermediate authority and the
// root's CRL from LDAP, and the intermediate's CRL from a directory: no source can be left out.
class DirectoryStore : public testing::Test {
 protected:
  DirectoryStore() {
    addToDirectory(cas_.path(), root_.get());
    addToDirectory(
        crls_.path(),
        makeCRL({.issuer = &middle_, .revoked = {{.serial = revoked_, .reason = 1}}}).get());
    ldap_.add(Slapd::Entry{"o=Test", {"organization"}, {}});
    ldap_.add(Slapd::Entry{
        "cn=Middle,o=Test", {"device", "pkiCA"}, {{"cACertificate;binary", der(middle_.get())}}});
    ldap_.add(Slapd::Entry{
        "cn=Root,o=Test",
        {"device", "pkiCA"},
        {{"certificateRevocationList;binary", der(makeCRL({.issuer = &root_}).get())}}});
  }

  CommandResult run(const Issued& person) {
    const std::string file = (own_ / "person.pem").string();
    writeFile(file, pem(person.get()));
    return runCommand(
        {PKX509_EXAMPLE, file, ldap_.uri(), cas_.path().string(), crls_.path().string()});
  }

  const Issued root_ = issueCA("O=Test,CN=Root");
  const Issued middle_ = issueCA("O=Test,CN=Middle", &root_);
  const Issued good_ = issue({.subject = "O=Test,CN=Good", .issuer = &middle_});
  const Issued revoked_ = issue({.subject = "O=Test,CN=Revoked", .issuer = &middle_});
  TempDir cas_;
  TempDir crls_;
  TempDir own_;
  Slapd ldap_;
};

TEST_F(DirectoryStore, GoodPersonIsValid) {
  const CommandResult result = run(good_);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("person.pem: ok"), std::string::npos) << result.out;
}

TEST_F(DirectoryStore, RevokedPersonIsNot) {
  const CommandResult result = run(revoked_);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("certificate revoked"), std::string::npos) << result.out;
}

TEST_F(DirectoryStore, WithoutTheServerNobodyIs) {
  ldap_.stop();
  const CommandResult result = run(good_);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find(ldap_.uri()), std::string::npos) << result.err;
}

}  // namespace
}  // namespace Velantrix::Test
