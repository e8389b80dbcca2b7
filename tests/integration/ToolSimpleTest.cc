// `pkx509 simple`: the process-wide verifier over the fixed directories.
#include "ToolFixture.h"
#include "support/Pki.h"
#include "support/PrivateView.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;

constexpr char kNoVerdict[] =
    "the key usage does not fit, or the verification could not be carried out";
constexpr char kMismatch[] = "SimpleVerifier: Requested value is not present in the Key Usage.";

class ToolSimple : public ToolFixture {
 protected:
  // The fixed directories of a machine that knows the PKI.
  void SetUp() override {
    ToolFixture::SetUp();
    fs::copy(pki("ca"), kCADirectory);
    fs::copy(pki("work/one/cert.pem"), fs::path(kCADirectory) / "one.pem");
    fs::copy(pki("work/two/cert.pem"), fs::path(kCADirectory) / "two.pem");
    command({"openssl", "rehash", kCADirectory});
    fs::copy(pki("crl/good"), kCRLDirectory);
  }

  static nlohmann::json reportOn(const Arguments& arguments, int status) {
    const CommandResult result = tool(Arguments{"simple", "--json"} + arguments);
    EXPECT_EQ(result.status, status) << result.err;
    EXPECT_EQ(result.err, "");
    const nlohmann::json reports = parsed(result);
    EXPECT_EQ(reports.size(), 1U);
    return reports.at(0);
  }
  static int codeOf(const Arguments& arguments) {
    const CommandResult result = tool(Arguments{"simple", "--json"} + arguments);
    const int code = parsed(result).at(0).at("code");
    EXPECT_EQ(parsed(result).at(0).at("verdict"), code == 0 ? "valid" : "invalid");
    EXPECT_EQ(result.status, code == 0 ? 0 : 1);
    return code;
  }
  // A certificate with that key usage, and its root among the trusted ones.
  std::string certificateWith(int keyUsage) const {
    const Issued root = issueCA("CN=Own Root");
    addToDirectory(kCADirectory, root.get());
    addToDirectory(kCRLDirectory, makeCRL({.issuer = &root}).get());
    const std::string file = own("own.pem");
    writeFile(file, pem(issue({.issuer = &root, .keyUsage = keyUsage}).get()));
    return file;
  }
};

TEST_F(ToolSimple, FixedDirectories_DecideAboutEachPerson) {
  EXPECT_EQ(codeOf({person("good")}), 0);
  EXPECT_EQ(codeOf({person("revoked")}), 23);
  EXPECT_EQ(codeOf({person("expired")}), 10);
  EXPECT_EQ(codeOf({person("stranger")}), 20);
  clearPrivateView();
  EXPECT_EQ(codeOf({person("good")}), 20);
}

TEST_F(ToolSimple, Json_HasExactlyTheKeysInOrder) {
  const CommandResult result = tool({"simple", "--json", person("revoked")});
  const auto report = nlohmann::ordered_json::parse(result.out).at(0);
  std::string keys;
  for (const auto& item : report.items()) keys += item.key() + " ";
  EXPECT_EQ(keys,
            "schemaVersion file verdict outcome code text verifier line checkTime path findings "
            "sources totals leftOut log ");
  EXPECT_EQ(report.at("file"), person("revoked"));
  EXPECT_EQ(report.at("verdict"), "invalid");
  EXPECT_EQ(report.at("code"), 23);
  EXPECT_EQ(report.at("text"), "certificate revoked");
  EXPECT_EQ(report.at("verifier"), "classic");
  ASSERT_EQ(report.at("log").size(), 1U);
  EXPECT_EQ(report.at("log").at(0).at("priority"), 7);
}

TEST_F(ToolSimple, Text_HasTheVerdict_AndLogsToStandardError) {
  const CommandResult good = tool({"simple", person("good")});
  EXPECT_EQ(good.status, 0);
  EXPECT_EQ(good.out, person("good") + ": valid, code 0 (ok)\n  verifier: classic\n");
  EXPECT_EQ(good.err, "");
  const CommandResult revoked = tool({"simple", "--color=always", person("revoked")});
  EXPECT_EQ(revoked.status, 1);
  const std::string begin = person("revoked") +
                            ": \x1b[31minvalid\x1b[0m, code 23 (certificate revoked)\n"
                            "  revoked: CN=revoked,O=Example Mail (depth 0, serial ";
  EXPECT_TRUE(revoked.out.starts_with(begin)) << revoked.out;
  EXPECT_TRUE(revoked.out.ends_with("\n  verifier: classic\n")) << revoked.out;
  EXPECT_EQ(linesIn(revoked.out), 3);
  EXPECT_TRUE(revoked.err.starts_with(person("revoked") + ": <7> Certificate, ( CN=revoked,"))
      << revoked.err;
  EXPECT_EQ(linesIn(revoked.err), 1);
}

TEST_F(ToolSimple, Conforming_IsTheOtherVerifier) {
  EXPECT_EQ(codeOf({"--conforming", person("good")}), 0);
  EXPECT_EQ(codeOf({"--conforming", person("revoked")}), 23);
  // A reason that does not revoke for the classic verifier.
  const Issued root = issueCA("CN=Own Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  addToDirectory(kCADirectory, root.get());
  addToDirectory(
      kCRLDirectory,
      makeCRL({.issuer = &root, .revoked = {{.serial = leaf, .reason = CRL_REASON_UNSPECIFIED}}})
          .get());
  writeFile(own("leaf.pem"), pem(leaf.get()));
  EXPECT_EQ(codeOf({own("leaf.pem")}), 0);
  const nlohmann::json report = reportOn({"--conforming", own("leaf.pem")}, 1);
  EXPECT_EQ(report.at("code"), 23);
  EXPECT_EQ(report.at("verifier"), "conforming");
}

TEST_F(ToolSimple, KeyUsage_IsLoggedOrRefused) {
  const std::string file = certificateWith(KU_KEY_ENCIPHERMENT);
  const nlohmann::json line = {{{"priority", 7}, {"text", kMismatch}}};
  nlohmann::json report = reportOn({"--key-usage", "digitalSignature", file}, 0);
  EXPECT_EQ(report.at("log"), line);
  report = reportOn({"--key-usage", "digitalSignature", "--require-key-usage", file}, 1);
  EXPECT_EQ(report.at("code"), -1);
  EXPECT_EQ(report.at("verdict"), "invalid");
  EXPECT_EQ(report.at("text"), kNoVerdict);
  EXPECT_EQ(report.at("log"), line);
  for (const char* usages :
       {"digitalSignature,keyEncipherment", "keyEncipherment,digitalSignature"}) {
    report = reportOn({"--require-key-usage", "--key-usage", usages, file}, 0);
    EXPECT_EQ(report.at("log"), nlohmann::json::array());
  }
}

TEST_F(ToolSimple, KeyUsages_AreKnownByAllNames) {
  struct Row {
    const char* name;
    int bit;
  };
  static constexpr Row kRows[] = {
      {"digitalSignature", KU_DIGITAL_SIGNATURE}, {"nonRepudiation", KU_NON_REPUDIATION},
      {"contentCommitment", KU_NON_REPUDIATION},  {"keyEncipherment", KU_KEY_ENCIPHERMENT},
      {"dataEncipherment", KU_DATA_ENCIPHERMENT}, {"keyAgreement", KU_KEY_AGREEMENT},
      {"keyCertSign", KU_KEY_CERT_SIGN},          {"cRLSign", KU_CRL_SIGN},
      {"encipherOnly", KU_ENCIPHER_ONLY},         {"decipherOnly", KU_DECIPHER_ONLY},
      {"DIGITALSIGNATURE", KU_DIGITAL_SIGNATURE}, {"crlsign", KU_CRL_SIGN},
  };
  constexpr int kAll = 0x80ff;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const Arguments use = {"--key-usage", row.name, "--require-key-usage"};
    // OpenSSL refuses some of these for reasons of its own, but not with -1.
    EXPECT_NE(codeOf(use + Arguments{certificateWith(row.bit)}), -1);
    EXPECT_EQ(codeOf(use + Arguments{certificateWith(kAll & ~row.bit)}), -1);
  }
}

TEST_F(ToolSimple, WhatCannotBeCarriedOut_IsNotValid) {
  writeFile(fs::path(kCRLDirectory) / "broken", "");
  for (const auto& entry : fs::directory_iterator(kCRLDirectory)) {
    writeFile(entry.path(), "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n");
  }
  const nlohmann::json report = reportOn({person("good")}, 1);
  EXPECT_EQ(report.at("code"), -1);
  EXPECT_EQ(report.at("text"), kNoVerdict);
  const std::string last = report.at("log").back().at("text");
  EXPECT_TRUE(last.starts_with("Cryptod::CMS::SimpleVerifier: Caught ")) << last;
}

TEST_F(ToolSimple, FirstOfAFile_IsVerified_OthersPlayNoPart) {
  const std::string chain = own("chain.pem");
  writeFile(chain, readFile(person("good")) + readFile(pki("intermediates.pem")));
  EXPECT_EQ(codeOf({chain}), 0);
  for (const char* name : {"one.pem", "two.pem"}) fs::remove(fs::path(kCADirectory) / name);
  command({"openssl", "rehash", kCADirectory});
  EXPECT_EQ(codeOf({chain}), 20);
  const CommandResult piped = tool({"simple", "-"}, readFile(person("stranger")));
  EXPECT_EQ(piped.status, 1);
  EXPECT_TRUE(piped.out.starts_with("-: invalid, code 20 ")) << piped.out;
}

TEST_F(ToolSimple, WrongUsageAndUnreadableInput_AreExplained) {
  const auto noUsage = [](const std::string& name) {
    return "--key-usage: \"" + name + "\" is no key usage; pkx509 simple --help lists them";
  };
  struct Row {
    Arguments arguments;
    std::string text;
  };
  const std::vector<Row> rows = {
      {{own("nothing")}, own("nothing") + ": No such file or directory"},
      {{pki("crl/good/base.crl")}, pki("crl/good/base.crl") + ": there is no certificate in it"},
      {{person("good"), "--key-usage", "signing"}, noUsage("signing")},
      {{person("good"), "--key-usage", "cRLSign,"}, noUsage("")},
      {{person("good"), "--key-usage", ",cRLSign"}, noUsage("")},
      {{person("good"), "--key-usage", ""}, noUsage("")},
      {{person("good"), "--key-usage", "cRLSign, keyCertSign"}, noUsage(" keyCertSign")},
      {{person("good"), "--require-key-usage"},
       "--require-key-usage requires --key-usage; --help shows the usage"},
      {{person("good"), person("good")},
       "unknown argument: " + person("good") + "; --help shows the usage"},
      {{person("good"), "--color", "red"}, "--color: \"red\" is none of auto, always and never"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const CommandResult result = tool(Arguments{"simple"} + row.arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "pkx509: " + row.text + "\n");
  }
  EXPECT_EQ(tool({"simple"}).status, 2);
}

TEST_F(ToolSimple, Help_NamesKeysStatusAndExamples) {
  const CommandResult help = tool({"simple", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  for (const char* text :
       {"--json", "--key-usage", "--require-key-usage", "--conforming", "--color", kCADirectory,
        kCRLDirectory, "Exit status", "Examples", "pkx509 simple "}) {
    EXPECT_NE(help.out.find(text), std::string::npos) << text;
  }
  const nlohmann::json report = reportOn({person("good")}, 0);
  for (const auto& item : report.items()) {
    EXPECT_NE(help.out.find(item.key()), std::string::npos) << item.key();
  }
  EXPECT_NE(tool({"--help"}).out.find("pkx509 simple "), std::string::npos);
}

}  // namespace
}  // namespace Velantrix::Test
