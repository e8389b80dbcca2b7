// `pkx509 find` and `pkx509 add`: certificates in hash directories.
#include "ToolFixture.h"
#include "support/Pki.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class ToolFind : public ToolFixture {
 protected:
  void SetUp() override {
    ToolFixture::SetUp();
    fs::create_directory(directory());
  }

  std::string directory() const { return own("certs"); }
  Arguments add(const std::string& email, const std::string& file) const {
    return {"add", "--email", email, "--dir", directory(), file};
  }
  Arguments find(const std::string& email) const {
    return {"find", "--email", email, "--dir", directory()};
  }
  // The objects that a search finds; at least one.
  static json found(const Arguments& arguments) {
    const CommandResult result = tool(arguments + Arguments{"--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return parsed(result);
  }
  static std::string subjectOf(const json& objects) {
    EXPECT_EQ(objects.size(), 1U);
    return objects.at(0).at("subject");
  }
  static void expectRefused(const CommandResult& result, const std::string& text) {
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "pkx509: " + text + "\n");
  }
  std::set<std::string> names() const {
    std::set<std::string> all;
    for (const auto& entry : fs::directory_iterator(directory())) {
      all.insert(entry.path().filename());
    }
    return all;
  }
};

TEST_F(ToolFind, AddedCertificate_IsFoundByItsAddress_AndByNoOther) {
  const CommandResult added = tool(add("good@example.com", person("good")));
  EXPECT_EQ(added.status, 0);
  EXPECT_EQ(added.err, "");
  EXPECT_EQ(added.out, person("good") + ": added to " + directory() + " for good@example.com\n");
  // SHA-1 of the address, the first four bytes in little-endian order.
  const CommandResult digest = runCommand({"openssl", "dgst", "-sha1", "-r"}, "good@example.com");
  const std::string hex = digest.out.substr(0, 8);
  std::string key =
      hex.substr(6, 2) + hex.substr(4, 2) + hex.substr(2, 2) + hex.substr(0, 2) + ".0";
  key.erase(0, key.find_first_not_of('0'));
  EXPECT_EQ(names(), std::set<std::string>{key});

  EXPECT_EQ(subjectOf(found(find("good@example.com"))), "CN=good,O=Example Mail");
  for (const char* other : {"Good@example.com", "good@example.org", "revoked@example.com"}) {
    const CommandResult result = tool(find(other));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "pkx509: " + directory() + ": there is no certificate for " + other + "\n");
    const CommandResult asJson = tool(find(other) + Arguments{"--json"});
    EXPECT_EQ(asJson.status, 1);
    EXPECT_EQ(parsed(asJson), json::array());
    EXPECT_EQ(asJson.err, result.err);
  }
}

TEST_F(ToolFind, AddedAgain_ReplacesWhatWasThere) {
  EXPECT_EQ(tool(add("good@example.com", person("good"))).status, 0);
  const CommandResult other = tool(add("good@example.com", person("revoked")));
  EXPECT_EQ(other.status, 0);
  // It is not the certificate of that address, and stored all the same.
  EXPECT_EQ(other.err, "pkx509: warning: " + person("revoked") +
                           ": the certificate does not name good@example.com\n");
  EXPECT_EQ(names().size(), 1U);
  EXPECT_EQ(subjectOf(found(find("good@example.com"))), "CN=revoked,O=Example Mail");
}

TEST_F(ToolFind, FirstOfAFile_IsAdded_InPemOrDer) {
  const std::string chain = own("chain.pem");
  writeFile(chain, readFile(person("good")) + readFile(pki("intermediates.pem")));
  EXPECT_EQ(tool(add("good@example.com", chain)).status, 0);
  EXPECT_EQ(subjectOf(found(find("good@example.com"))), "CN=good,O=Example Mail");
  const std::string der = own("revoked.der");
  command({"openssl", "x509", "-in", person("revoked"), "-outform", "DER", "-out", der});
  const CommandResult piped = tool(add("revoked@example.com", "-"), readFile(der));
  EXPECT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(piped.err, "");
  EXPECT_EQ(subjectOf(found(find("revoked@example.com"))), "CN=revoked,O=Example Mail");
}

TEST_F(ToolFind, AddJson_HasExactlyTheKeysInOrder) {
  const CommandResult result = tool(add("good@example.com", person("good")) + Arguments{"--json"});
  EXPECT_EQ(result.status, 0);
  const json objects = parsed(result);
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(keysOf(result), "file email directory subject issuer serial ");
  const json shown = parsed(tool({"show", "--json", person("good")})).at(0);
  const json added = parsed(result).at(0);
  EXPECT_EQ(added.at("file"), person("good"));
  EXPECT_EQ(added.at("email"), "good@example.com");
  EXPECT_EQ(added.at("directory"), directory());
  for (const char* key : {"subject", "issuer", "serial"}) {
    EXPECT_EQ(added.at(key), shown.at(key)) << key;
  }
}

TEST_F(ToolFind, BySubject_DirectoriesOfOpenSSLRehash_AreSearched) {
  for (const char* name : {"good", "revoked"}) {
    fs::copy(person(name), directory() + "/" + name + ".pem");
  }
  command({"openssl", "rehash", directory()});
  const auto search = [this](const std::string& name) {
    return Arguments{"find", "--subject", name, "--dir", directory()};
  };
  for (const char* name : {"CN=good,O=Example Mail", "cn=GOOD,o=example  mail"}) {
    EXPECT_EQ(subjectOf(found(search(name))), "CN=good,O=Example Mail");
  }
  const CommandResult none = tool(search("O=Example Mail,CN=good"));
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err,
            "pkx509: " + directory() + ": there is no certificate for O=Example Mail,CN=good\n");
  EXPECT_EQ(tool(search("CN=good")).status, 1);
}

TEST_F(ToolFind, WhatIsFound_IsShownLikeShow_WithTheDirectoryAsFile) {
  const std::string broken = own("broken.pem");
  writeFile(broken, pem(issue({.subject = "CN=Broken",
                               .keyUsage = kAbsent,
                               .rawExtensions = {{.oid = "2.5.29.15", .der = "\x05"}}})
                            .get()));
  for (const std::string& file : {person("good"), broken}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(tool(add("good@example.com", file)).status, 0);
    CommandResult shown = tool({"show", file});
    const CommandResult text = tool(find("good@example.com"));
    EXPECT_EQ(text.status, shown.status);
    EXPECT_EQ(text.out, directory() + shown.out.substr(file.size()));
    json expected = parsed(tool({"show", "--json", file}));
    expected.at(0).at("file") = directory();
    const CommandResult asJson = tool(find("good@example.com") + Arguments{"--json"});
    EXPECT_EQ(parsed(asJson), expected);
    EXPECT_EQ(asJson.status, shown.status);
  }
}

TEST_F(ToolFind, SeveralCertificatesOfOneFile_AreAllShown) {
  EXPECT_EQ(tool(add("good@example.com", person("good"))).status, 0);
  const fs::path file = directory() + "/" + *names().begin();
  writeFile(file, readFile(person("good")) + readFile(pki("intermediates.pem")));
  EXPECT_EQ(found(find("good@example.com")).size(), 3U);
}

TEST_F(ToolFind, WrongUsage_IsExplained) {
  const std::string either = "give either --email or --subject";
  struct Row {
    Arguments arguments;
    std::string text;
  };
  const std::string good = person("good");
  const std::vector<Row> rows = {
      {{"find", "--dir", directory()}, either},
      {{"find", "--dir", directory(), "--email", "a@b", "--subject", "CN=A"}, either},
      {{"find", "--email", "a@b"}, "give either --dir or --ldap"},
      {{"find", "--email", "nobody", "--dir", directory()},
       "--email: \"nobody\" is no mail address"},
      {{"find", "--email", "", "--dir", directory()}, "--email: \"\" is no mail address"},
      {{"find", "--subject", "nobody", "--dir", directory()},
       "--subject: \"nobody\" is no name; give one like CN=Someone,O=Example,C=DE"},
      {{"find", "--subject", "", "--dir", directory()},
       "--subject: \"\" is no name; give one like CN=Someone,O=Example,C=DE"},
      {{"find", "--email", "a@b", "--dir", directory(), "x"},
       "unknown argument: x; --help shows the usage"},
      {{"find", "--email", "a@b", "--dir", own("nothing")},
       "--dir: " + own("nothing") + ": No such file or directory"},
      {{"find", "--email", "a@b", "--dir", ""}, "--dir: : No such file or directory"},
      {{"find", "--email", "a@b", "--dir", directory()},
       "--dir: " + directory() +
           ": no file in it is named by a hash; \"openssl rehash\" makes such names"},
      {{"add", "--email", "nobody", "--dir", directory(), good},
       "--email: \"nobody\" is no mail address"},
      {{"add", "--email", "a@b", "--dir", directory(), own("nothing")},
       own("nothing") + ": No such file or directory"},
      {{"add", "--email", "a@b", "--dir", directory(), pki("crl/good/base.crl")},
       pki("crl/good/base.crl") + ": there is no certificate in it"},
      {{"add", "--email", "a@b", "--dir", directory(), good, good},
       "unknown argument: " + good + "; --help shows the usage"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    expectRefused(tool(row.arguments), row.text);
  }
  // The wording of these is the command-line parser's.
  for (const Arguments& arguments :
       {Arguments{"add", "--email", "a@b", "--dir", directory()},
        Arguments{"add", "--dir", directory(), good}, Arguments{"add", "--email", "a@b", good},
        Arguments{"find", "--email", "a@b", "--email", "c@d", "--dir", directory()}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const CommandResult result = tool(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(linesIn(result.err), 1) << result.err;
  }
  EXPECT_EQ(names(), std::set<std::string>());
}

TEST_F(ToolFind, UnreadableFile_IsAnErrorThatNamesIt) {
  EXPECT_EQ(tool(add("good@example.com", person("good"))).status, 0);
  const std::string file = directory() + "/" + *names().begin();
  writeFile(file, "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
  const CommandResult result = tool(find("good@example.com"));
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(result.err.starts_with("pkx509: " + file + ": ")) << result.err;
  EXPECT_EQ(linesIn(result.err), 1);
}

TEST_F(ToolFind, DirectoryThatCannotBeWrittenTo_KeepsWhatItHas) {
  const CommandResult missing =
      tool({"add", "--email", "a@b", "--dir", own("nothing"), person("good")});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.out, "");
  EXPECT_TRUE(missing.err.starts_with("pkx509: --dir: " + own("nothing") + "/")) << missing.err;
  EXPECT_EQ(linesIn(missing.err), 1);

  EXPECT_EQ(tool(add("good@example.com", person("good"))).status, 0);
  ASSERT_EQ(::chmod(directory().c_str(), 0500), 0);
  obeyPermissions();
  const CommandResult refused = tool(add("good@example.com", person("revoked")));
  ASSERT_EQ(::chmod(directory().c_str(), 0700), 0);
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.out, "");
  EXPECT_TRUE(refused.err.starts_with("pkx509: --dir: " + directory() + "/")) << refused.err;
  EXPECT_EQ(linesIn(refused.err), 1) << refused.err;
  EXPECT_EQ(subjectOf(found(find("good@example.com"))), "CN=good,O=Example Mail");
}

TEST_F(ToolFind, TextsOfStrangers_ReachTheTerminalEscaped) {
  const std::string file = own("red.pem");
  writeFile(file, pem(issue({.subject = "CN=\x1b[31mred"}).get()));
  const CommandResult added = tool(add("a@\xc2\x9b.com", file));
  EXPECT_EQ(added.status, 0);
  EXPECT_NE(added.out.find("for a@\\C2\\9B.com\n"), std::string::npos) << added.out;
  EXPECT_NE(added.err.find("does not name a@\\C2\\9B.com\n"), std::string::npos) << added.err;
  const CommandResult result = tool(find("a@\xc2\x9b.com"));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos) << result.out;
}

TEST_F(ToolFind, Help_NamesKeysStatusAndExamples) {
  for (const char* subcommand : {"find", "add"}) {
    const CommandResult help = tool({subcommand, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    for (const std::string text : {"--json", "--email", "--dir", "Exit status", "Examples"}) {
      EXPECT_NE(help.out.find(text), std::string::npos) << text;
    }
    EXPECT_NE(help.out.find("\n  pkx509 " + std::string(subcommand) + " "), std::string::npos);
    EXPECT_NE(tool({"--help"}).out.find("\n  " + std::string(subcommand) + " "), std::string::npos);
  }
  EXPECT_NE(tool({"find", "--help"}).out.find("--subject"), std::string::npos);
  const json added = parsed(tool(add("good@example.com", person("good")) + Arguments{"--json"}));
  const std::string help = tool({"add", "--help"}).out;
  for (const auto& item : added.at(0).items()) {
    EXPECT_NE(help.find(item.key()), std::string::npos) << item.key();
  }
}

}  // namespace
}  // namespace Velantrix::Test
