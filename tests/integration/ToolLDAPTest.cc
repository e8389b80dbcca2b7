// "pkx509 verify --ldap" and "pkx509 find --ldap" with OpenLDAP's server.
#include "integration/ToolFixture.h"
#include "support/Pki.h"
#include "support/Slapd.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>

namespace Velantrix::Test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// A directory with a root, its CRL and two people, of whom the root's CRL revokes one.
class ToolLDAP : public ToolFixture {
 protected:
  void SetUp() override {
    ToolFixture::SetUp();
    crl_ = der(makeCRL({.issuer = &root_, .revoked = {{.serial = revoked_, .reason = 1}}}).get());
    directory_.add(Slapd::Entry{"o=Test", {"organization"}, {}});
    directory_.add(
        {"cn=Root,o=Test",
         {"device", "pkiCA"},
         {{"cACertificate;binary", der(root_.get())}, {"certificateRevocationList;binary", crl_}}});
    directory_.add(Slapd::Entry{"cn=Good,o=Test",
                                {"inetOrgPerson"},
                                {{"sn", "Good"},
                                 {"mail", "good*person@example.com"},
                                 {"userCertificate;binary", der(good_.get())}}});
    good = own("good.pem");
    revoked = own("revoked.pem");
    writeFile(good, pem(good_.get()));
    writeFile(revoked, pem(revoked_.get()));
  }

  Arguments verify(const std::string& file) const {
    return {"verify", "--json", "--ca-dir", pki("ca"), "--ldap", directory_.uri(), file};
  }

  const Issued root_ = issueCA("O=Test,CN=Root");
  const Issued good_ = issue({.subject = "O=Test,CN=Good", .issuer = &root_});
  const Issued revoked_ = issue({.subject = "O=Test,CN=Revoked", .issuer = &root_});
  std::string crl_;
  Slapd directory_;
  std::string good;
  std::string revoked;
};

TEST_F(ToolLDAP, ClassicVerify_TakesRootAndCRLFromTheDirectory) {
  const Arguments classic = {"--classic"};
  EXPECT_EQ(parsed(tool(verify(good) + classic)).at(0).at("code"), 0);
  EXPECT_EQ(parsed(tool(verify(revoked) + classic)).at(0).at("code"), 23);
  // Without the directory nobody knows the root.
  const json report = parsed(tool({"verify", "--json", "--ca-dir", pki("ca"), good})).at(0);
  EXPECT_EQ(report.at("verdict"), "invalid");
}

TEST_F(ToolLDAP, Verify_TakesCRLsFromTheDirectory_AndNoRoot) {
  EXPECT_NE(parsed(tool(verify(good))).at(0).at("code"), 0);
  fs::create_directory(own("ca"));
  addToDirectory(own("ca"), root_.get());
  const auto trusting = [&](const std::string& file) {
    return Arguments{"verify", "--json", "--ca-dir", own("ca"), "--ldap", directory_.uri(), file};
  };
  EXPECT_EQ(parsed(tool(trusting(good))).at(0).at("code"), 0);
  EXPECT_EQ(parsed(tool(trusting(revoked))).at(0).at("code"), 23);
}

TEST_F(ToolLDAP, BindDn_SuppressesTheBind) {
  // A name that the server does not know, without a password: a bind with it would be refused.
  const CommandResult result =
      tool(verify(good) + Arguments{"--classic", "--bind-dn", "cn=Nobody,o=Test"});
  EXPECT_EQ(parsed(result).at(0).at("code"), 0) << result.err;
  const std::string help = tool({"verify", "--help"}).out;
  EXPECT_NE(help.find("a name suppresses the bind"), std::string::npos);
}

TEST_F(ToolLDAP, DirectoryThatIsDown_IsNoVerdictOfTheClassicVerifier_AndALineOfTheOther) {
  directory_.stop();
  const json report = parsed(tool(verify(good))).at(0);
  EXPECT_EQ(report.at("code"), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  const std::string line = report.at("log").at(0).at("text");
  EXPECT_NE(line.find(directory_.uri()), std::string::npos) << line;
  const CommandResult result = tool(verify(good) + Arguments{"--classic"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find(directory_.uri()), std::string::npos) << result.err;
  EXPECT_EQ(linesIn(result.err), 1) << result.err;
}

TEST_F(ToolLDAP, Find_BySubjectAndByMailAddress) {
  const json bySubject =
      parsed(tool({"find", "--json", "--ldap", directory_.uri(), "--subject", "CN=Good,O=Test"}));
  ASSERT_EQ(bySubject.size(), 1U);
  EXPECT_EQ(bySubject.at(0).at("subject"), "CN=Good,O=Test");
  EXPECT_EQ(bySubject.at(0).at("file"), directory_.uri());

  const Arguments byMail = {"find",   "--json", "--ldap", directory_.uri(),
                            "--base", "o=Test", "--email"};
  EXPECT_EQ(parsed(tool(byMail + Arguments{"good*person@example.com"})), bySubject);
  // The asterisk is a letter of the address and no pattern.
  const CommandResult pattern = tool(byMail + Arguments{"*@example.com"});
  EXPECT_EQ(pattern.status, 1);
  EXPECT_EQ(parsed(pattern), json::array());
}

TEST_F(ToolLDAP, BadUsage_IsOneLine) {
  const struct {
    Arguments arguments;
    const char* error;
  } rows[] = {
      {{"verify", "--bind-dn", "cn=A", good}, "--bind-dn goes with --ldap"},
      {{"verify", "--ca-dir", pki("ca"), "--ldap", "http://x/", good}, "--ldap: "},
      {{"find", "--email", "a@b", "--dir", pki("ca"), "--ldap", "ldap://x"},
       "give either --dir or --ldap"},
      {{"find", "--email", "a@b", "--ldap", "ldap://x"}, "--base goes with --email"},
      {{"find", "--subject", "CN=A", "--base", "o=B", "--ldap", "ldap://x"},
       "--base goes with --email"},
      {{"find", "--subject", "CN=A", "--base", "o=B", "--dir", pki("ca")},
       "--base goes with --ldap"},
  };
  for (const auto& row : rows) {
    const CommandResult result = tool(row.arguments);
    EXPECT_EQ(result.status, 2) << row.error;
    EXPECT_NE(result.err.find(row.error), std::string::npos) << result.err;
    EXPECT_EQ(linesIn(result.err), 1) << result.err;
  }
}

}  // namespace
}  // namespace Velantrix::Test
