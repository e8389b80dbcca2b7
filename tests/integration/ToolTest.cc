// The tool's options and its output. What it refuses is in ToolBadInputTest.cc.
#include "ToolFixture.h"
#include "support/Pki.h"
#include "support/PrivateView.h"

#include <openssl/crypto.h>
#include <openssl/rsa.h>

#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class Tool : public ToolFixture {
 protected:
  // The code of one certificate; a status that does not fit is a failure of the test.
  static int codeOf(const Arguments& arguments) {
    const CommandResult result = tool(arguments + Arguments{"--json"});
    EXPECT_EQ(result.err, "");
    const nlohmann::json reports = parsed(result);
    EXPECT_EQ(reports.size(), 1U);
    const int code = reports.at(0).at("code");
    EXPECT_EQ(reports.at(0).at("verdict"), code == 0 ? "valid" : "invalid");
    EXPECT_EQ(result.status, code == 0 ? 0 : 1);
    return code;
  }

  // The conforming verifier's line, priority 5, is also what text has below the verdict.
  static nlohmann::json withoutReportLine(const nlohmann::json& log) {
    nlohmann::json rest = nlohmann::json::array();
    for (const nlohmann::json& line : log) {
      if (line.at("priority") != 5) rest.push_back(line);
    }
    return rest;
  }

  static std::string serialOf(const std::string& file) {
    const CommandResult result = runCommand({"openssl", "x509", "-in", file, "-noout", "-serial"});
    return result.out.substr(result.out.find('=') + 1, result.out.size() - 8);
  }

  // A root in a hash directory of the test's own, and a certificate of it in a file.
  struct Pair {
    std::string caDirectory;
    std::string file;
    Arguments verify() const { return {"verify", "--ca-dir", caDirectory, file}; }
  };
  Pair makePair(CertificateOptions options) const {
    const Issued root = issue({.subject = "CN=Own Root",
                               .notBefore = "20000101000000Z",
                               .notAfter = "20991231235959Z",
                               .ca = true});
    options.issuer = &root;
    const Pair pair{own("ca"), own("leaf.pem")};
    fs::create_directory(pair.caDirectory);
    addToDirectory(pair.caDirectory, root.get());
    writeFile(pair.file, pem(issue(options).get()));
    return pair;
  }
};

TEST_F(Tool, EachPersonWithEachDirectoryOfCRLs_HasItsVerdict) {
  struct Row {
    const char* crls;
    const char* person;
    int code;
    int depth;
    int classicCode;
  };
  static constexpr Row kRows[] = {
      {"good", "good", 0, 0, 0},
      {"good", "revoked", 23, 0, 23},
      {"good", "delta-revoked", 0, 0, 0},
      {"delta", "delta-revoked", 23, 0, 23},
      {"good", "delta-restored", 23, 0, 23},
      {"delta", "delta-restored", 0, 0, 0},
      {"good", "expired", 10, 0, 10},
      {"good", "stranger", 20, 0, 20},
      {"missing", "good", 3, 0, 3},
      {"expired", "good", X509_V_ERR_CRL_HAS_EXPIRED, 0, 3},
      {"wrong-key", "good", 8, 1, 8},
      {"wrong-scope", "good", X509_V_ERR_DIFFERENT_CRL_SCOPE, 0, 3},
      {"revoked-ca", "good", 23, 1, 23},
  };
  const auto expectReport = [](const Arguments& verify, const Row& row, int code) {
    const CommandResult result = tool(verify + Arguments{"--json", person(row.person)});
    EXPECT_EQ(result.status, code == 0 ? 0 : 1);
    EXPECT_EQ(result.err, "");
    const nlohmann::json report = parsed(result).at(0);
    EXPECT_EQ(report.at("code"), code);
    EXPECT_EQ(report.at("depth"), row.depth);
    if (code == 0) {
      EXPECT_EQ(report.at("log"), nlohmann::json::array());
      return;
    }
    const nlohmann::json last = withoutReportLine(report.at("log")).back();
    EXPECT_EQ(last.at("priority"), 7);
    const std::string text = last.at("text");
    EXPECT_TRUE(text.starts_with("Certificate, ( CN=")) << text;
    EXPECT_TRUE(
        text.ends_with(std::string(") is not valid, ") + X509_verify_cert_error_string(code)))
        << text;
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string(row.person) + ", " + row.crls);
    expectReport(verifyWith(row.crls), row, row.code);
    expectReport(classicWith(row.crls), row, row.classicCode);
  }
}

TEST_F(Tool, Classic_HasTheLeniencies_AndBothSayWhoDecided) {
  // A reason that does not revoke for the classic verifier.
  const Issued root = issueCA("CN=Own Root");
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  for (const char* directory : {"ca", "crls"}) fs::create_directory(own(directory));
  addToDirectory(own("ca"), root.get());
  addToDirectory(
      own("crls"),
      makeCRL({.issuer = &root, .revoked = {{.serial = leaf, .reason = CRL_REASON_UNSPECIFIED}}})
          .get());
  writeFile(own("leaf.pem"), pem(leaf.get()));
  const Arguments verify = {"verify",    "--ca-dir",  own("ca"),
                            "--crl-dir", own("crls"), own("leaf.pem")};
  const Arguments classic = verify + Arguments{"--classic"};
  EXPECT_EQ(codeOf(verify), X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(codeOf(classic), 0);
  EXPECT_EQ(parsed(tool(verify + Arguments{"--json"})).at(0).at("verifier"), "conforming");
  EXPECT_EQ(parsed(tool(classic + Arguments{"--json"})).at(0).at("verifier"), "classic");
  EXPECT_NE(tool(verify).out.find("\n  verifier: conforming\n"), std::string::npos);
  EXPECT_NE(tool(classic).out.find("\n  verifier: classic\n"), std::string::npos);
}

TEST_F(Tool, SecurityLevel_BindsThePath_AndIsTwo) {
  const Pair pair = makePair({.subject = "CN=Leaf", .key = {EVP_RSA_gen(1024), EVP_PKEY_free}});
  const Arguments verify = pair.verify() + Arguments{"--no-flag", "CRL_CHECK"};
  const auto at = [&](const char* level) {
    return codeOf(verify + Arguments{"--security-level", level});
  };
  EXPECT_EQ(codeOf(verify), X509_V_ERR_EE_KEY_TOO_SMALL);
  EXPECT_EQ(at("2"), X509_V_ERR_EE_KEY_TOO_SMALL);
  EXPECT_EQ(at("1"), 0);
  EXPECT_EQ(at("0"), 0);
  EXPECT_EQ(at("5"), X509_V_ERR_EE_KEY_TOO_SMALL);
  EXPECT_EQ(codeOf(verify + Arguments{"--classic"}), 0);
}

TEST_F(Tool, Json_HasExactlyTheKeysInOrder) {
  const CommandResult result =
      tool(verifyWith("good") + Arguments{"--json", person("good"), person("revoked")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "");
  const auto reports = nlohmann::ordered_json::parse(result.out);
  ASSERT_EQ(reports.size(), 2U);
  const auto& report = reports.at(1);
  std::string keys;
  for (const auto& item : report.items()) keys += item.key() + " ";
  EXPECT_EQ(keys,
            "schemaVersion file verdict outcome code text verifier depth chain line checkTime path "
            "findings sources totals leftOut log ");
  EXPECT_EQ(report.at("schemaVersion"), 1);
  EXPECT_EQ(report.at("outcome"), "permanent");
  EXPECT_EQ(report.at("file"), person("revoked"));
  EXPECT_EQ(report.at("verdict"), "invalid");
  EXPECT_EQ(report.at("code"), 23);
  EXPECT_EQ(report.at("text"), "certificate revoked");
  EXPECT_EQ(report.at("verifier"), "conforming");
  EXPECT_EQ(report.at("depth"), 0);
  ASSERT_EQ(report.at("chain").size(), 4U);
  EXPECT_EQ(report.at("chain").at(0).dump(),
            R"({"subject":"CN=revoked,O=Example Mail","issuer":"CN=Intermediate 2,O=Example Mail",)"
            R"("serial":")" +
                serialOf(person("revoked")) + "\"}");
  EXPECT_EQ(report.at("chain").at(3).at("subject"), "CN=Root,O=Example Mail");
  ASSERT_EQ(report.at("log").size(), 2U);
  EXPECT_EQ(report.at("log").at(1).at("text"), report.at("line"));
  EXPECT_EQ(report.at("log").at(0).dump(),
            R"({"priority":7,"text":"Certificate, ( CN=revoked,O=Example Mail / )"
            "CN=Intermediate 2,O=Example Mail serialNumber: " +
                serialOf(person("revoked")) + R"() is not valid, certificate revoked"})");
  EXPECT_EQ(reports.at(0).at("file"), person("good"));
  EXPECT_EQ(reports.at(0).at("verdict"), "valid");
  EXPECT_EQ(reports.at(0).at("text"), "ok");
  EXPECT_EQ(reports.at(0).at("log").size(), 0U);
}

TEST_F(Tool, Text_NamesVerdictAndPath_AndLogsToStandardError) {
  const std::string file = person("stranger");
  const CommandResult result = tool(verifyWith("good") + Arguments{file});
  EXPECT_EQ(result.status, 1);
  const std::string line =
      parsed(tool(verifyWith("good") + Arguments{"--json", file})).at(0).at("line");
  EXPECT_TRUE(line.starts_with("issuer-unknown: CN=stranger,O=Example Mail (depth 0")) << line;
  EXPECT_EQ(result.out,
            file + ": invalid, code 20 (unable to get local issuer certificate), depth 0\n  " +
                line +
                "\n"
                "  verifier: conforming\n"
                "  chain 0: subject CN=stranger,O=Example Mail\n"
                "           issuer  CN=Unknown Root,O=Example Mail\n"
                "           serial  " +
                serialOf(file) + "\n");
  EXPECT_EQ(result.err,
            file +
                ": <7> Certificate, ( CN=stranger,O=Example Mail / CN=Unknown Root,O=Example Mail "
                "serialNumber: " +
                serialOf(file) + ") is not valid, unable to get local issuer certificate\n");
}

TEST_F(Tool, Text_OfAValidCertificate_HasNoDepthAndNoLog) {
  const CommandResult result = tool(verifyWith("good") + Arguments{person("good")});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.out.starts_with(
      person("good") + ": valid, code 0 (ok)\n  verifier: conforming\n  chain 0: subject "))
      << result.out;
  EXPECT_EQ(linesIn(result.out), 2 + 4 * 3);
  EXPECT_EQ(result.err, "");
}

TEST_F(Tool, SeveralFiles_OneThatIsNotValid_IsStatusOne) {
  const Arguments verify = verifyWith("good");
  EXPECT_EQ(tool(verify + Arguments{person("good"), person("delta-revoked")}).status, 0);
  const CommandResult mixed =
      tool(verify + Arguments{person("revoked"), person("good"), person("expired")});
  EXPECT_EQ(mixed.status, 1);
  EXPECT_NE(mixed.out.find(person("good") + ": valid, code 0 (ok)\n"), std::string::npos);
  EXPECT_NE(mixed.out.find(person("expired") + ": invalid, code 10 "), std::string::npos);
}

TEST_F(Tool, PemAndDer_FilesPipesAndStandardInput_AreRead) {
  const std::string der = own("good.der");
  command({"openssl", "x509", "-in", person("good"), "-outform", "DER", "-out", der});
  const Arguments verify = verifyWith("good");
  EXPECT_EQ(tool(verify + Arguments{der}).status, 0);
  for (const std::string& file : {person("good"), der}) {
    SCOPED_TRACE(file);
    const CommandResult result = tool(verify + Arguments{"-"}, readFile(file));
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with("-: valid, ")) << result.out;
    EXPECT_EQ(result.err, "");
    const std::string fifo = own("fifo");
    fs::remove(fifo);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const CommandResult piped =
        shell("cat '" + file + "' >'" + fifo + "' & exec \"$0\" \"$@\"", verify + Arguments{fifo});
    EXPECT_EQ(piped.status, 0) << piped.err;
  }
  EXPECT_EQ(shell("cat '" + der + "' | \"$0\" \"$@\"", verify + Arguments{"-"}).status, 0);
}

TEST_F(Tool, FirstOfAFile_IsVerified_OthersAreUntrustedForThatFileOnly) {
  const std::string chain = own("chain.pem");
  writeFile(chain, readFile(person("good")) + readFile(pki("intermediates.pem")));
  const std::string reverse = own("reverse.pem");
  writeFile(reverse, readFile(pki("intermediates.pem")) + readFile(person("good")));
  const CommandResult result = tool({"verify", "--ca-dir", pki("ca"), "--crl-dir", pki("crl/good"),
                                     "--json", chain, reverse, person("good")});
  EXPECT_EQ(result.status, 1);
  const nlohmann::json reports = parsed(result);
  ASSERT_EQ(reports.size(), 3U);
  EXPECT_EQ(reports.at(0).at("code"), 0);
  EXPECT_EQ(reports.at(0).at("chain").at(0).at("subject"), "CN=good,O=Example Mail");
  EXPECT_EQ(reports.at(1).at("code"), 0);
  EXPECT_EQ(reports.at(1).at("chain").at(0).at("subject"), "CN=Intermediate 1,O=Example Mail");
  EXPECT_EQ(reports.at(2).at("code"), 20);
}

TEST_F(Tool, UntrustedAndCRLDir_AreRepeatable) {
  std::vector<std::string> directories;
  for (const char* name : {"root", "one", "base"}) {
    const std::string directory = own(name);
    fs::create_directory(directory);
    fs::copy(pki("work/") + name + ".crl", directory);
    command({"openssl", "rehash", directory});
    directories.push_back(directory);
  }
  const Arguments all = {"verify",
                         "--ca-dir",
                         pki("ca"),
                         "--crl-dir",
                         directories[0],
                         "--untrusted",
                         pki("work/one/cert.pem"),
                         "--crl-dir=" + directories[1],
                         "--untrusted=" + pki("work/two/cert.pem"),
                         person("good"),
                         "--crl-dir",
                         directories[2]};
  EXPECT_EQ(codeOf(all), 0);
  EXPECT_EQ(codeOf(Arguments(all.begin(), all.end() - 2)), 3);
  EXPECT_EQ(tool({"verify", "--ca-dir", pki("ca"), "--untrusted", "-", "--crl-dir", pki("crl/good"),
                  person("good")},
                 readFile(pki("intermediates.pem")))
                .status,
            0);
}

TEST_F(Tool, WithoutCADirAndCRLDir_TheFixedDirectoriesServe) {
  fs::copy(pki("ca"), kCADirectory);
  const Arguments verify = {"verify",       "--untrusted", pki("intermediates.pem"),
                            person("good"), "--ca-dir",    kCADirectory};
  const Arguments defaults(verify.begin(), verify.end() - 2);
  EXPECT_EQ(codeOf(verify), 3);
  EXPECT_EQ(codeOf(defaults), 3);
  fs::copy(pki("crl/good"), kCRLDirectory);
  EXPECT_EQ(codeOf(verify), 0);
  EXPECT_EQ(codeOf(defaults), 0);
}

TEST_F(Tool, Policy_ReplacesAnyPolicy) {
  const Pair pair =
      makePair({.subject = "CN=Leaf", .extensions = {{"certificatePolicies", "1.2.3.4"}}});
  const Arguments verify = pair.verify() + Arguments{"--no-flag", "CRL_CHECK"};
  const Arguments strict = verify + Arguments{"--flag", "EXPLICIT_POLICY"};
  EXPECT_EQ(codeOf(verify + Arguments{"--policy", "1.2.3.5"}), 0);
  EXPECT_EQ(codeOf(strict), 0);
  EXPECT_EQ(codeOf(strict + Arguments{"--policy", "1.2.3.4"}), 0);
  EXPECT_EQ(codeOf(strict + Arguments{"--policy", "1.2.3.5"}), X509_V_ERR_NO_EXPLICIT_POLICY);
  EXPECT_EQ(codeOf(strict + Arguments{"--policy", "1.2.3.5", "--policy", "1.2.3.4"}), 0);
}

TEST_F(Tool, Flags_AreKnownByAllSpellings_AndTheLastOneCounts) {
  const Arguments verify = verifyWith("missing") + Arguments{person("good")};
  struct Row {
    Arguments flags;
    int code;
  };
  const std::vector<Row> rows = {
      {{}, 3},
      {{"--no-flag", "CRL_CHECK"}, 0},
      {{"--no-flag", "X509_V_FLAG_CRL_CHECK"}, 0},
      {{"--no-flag", "x509-v-flag-crl-check"}, 0},
      {{"--no-flag=Crl-Check"}, 0},
      {{"--no-flag", "CRL_CHECK", "--flag", "CRL_CHECK"}, 3},
      {{"--flag", "CRL_CHECK", "--no-flag", "CRL_CHECK"}, 0},
      {{"--no-flag", "USE_DELTAS", "--no-flag", "CRL_CHECK"}, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.flags));
    EXPECT_EQ(codeOf(verify + row.flags), row.code);
  }
}

TEST_F(Tool, Flags_DoWhatTheirConstantsDo) {
  const Arguments good = verifyWith("good");
  EXPECT_EQ(codeOf(good + Arguments{person("expired"), "--flag", "NO_CHECK_TIME"}), 0);
  EXPECT_EQ(codeOf(good + Arguments{person("good"), "--flag", "EXPLICIT_POLICY"}),
            X509_V_ERR_NO_EXPLICIT_POLICY);
  EXPECT_EQ(codeOf(good + Arguments{person("good"), "--flag", "SUITEB_192_LOS"}),
            X509_V_ERR_SUITE_B_LOS_NOT_ALLOWED);
  const Pair pair = makePair({.subject = "CN=Leaf", .authorityKeyId = KeyId::Absent});
  const Arguments own = pair.verify() + Arguments{"--no-flag", "crl_check"};
  const Arguments classic = own + Arguments{"--classic"};
  EXPECT_EQ(codeOf(classic), X509_V_ERR_MISSING_AUTHORITY_KEY_IDENTIFIER);
  EXPECT_EQ(codeOf(classic + Arguments{"--no-flag", "x509_strict"}), 0);
  EXPECT_EQ(codeOf(own), 0);
  EXPECT_EQ(codeOf(own + Arguments{"--flag", "x509_strict"}),
            X509_V_ERR_MISSING_AUTHORITY_KEY_IDENTIFIER);
}

TEST_F(Tool, NoFlag_AlsoClearsWhatOpenSSLSetsItself) {
  // Two roots with one name and one key; only the older one is trusted, and the sender sent a newer
  // one that has expired. OpenSSL looks into the store first unless TRUSTED_FIRST is cleared.
  const Issued root = issueCA("CN=Twice");
  const Issued expired = issue(
      {.subject = "CN=Twice", .notBefore = -48h, .notAfter = -1h, .ca = true, .key = root.key});
  fs::create_directory(own("ca"));
  addToDirectory(own("ca"), root.get());
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
  writeFile(own("leaf.pem"), pem(leaf.get()) + pem(expired.get()));
  const Arguments verify = {"verify",    "--ca-dir", own("ca"),       own("leaf.pem"), "--no-flag",
                            "CRL_CHECK", "--flag",   "NO_ALT_CHAINS", "--classic"};
  EXPECT_EQ(codeOf(verify), 0);
  EXPECT_NE(codeOf(verify + Arguments{"--no-flag", "TRUSTED_FIRST"}), 0);
}

TEST_F(Tool, EveryFlagOfHelp_IsAccepted) {
  const std::string help = tool({"verify", "--help"}).out;
  const std::size_t begin = help.find("ALLOW_PROXY_CERTS");
  ASSERT_NE(begin, std::string::npos);
  std::istringstream names(help.substr(begin, help.find("Set by default") - begin));
  int count = 0;
  for (std::string name; names >> name; ++count) {
    SCOPED_TRACE(name);
    for (const char* option : {"--flag", "--no-flag"}) {
      const CommandResult result =
          tool(verifyWith("good") + Arguments{option, name, person("good")});
      EXPECT_LE(result.status, 1) << result.err;
    }
  }
  EXPECT_EQ(count, 23);
}

// OpenSSL reads the trusted certificates of a path by itself and passes over what it cannot read; a
// Verifier reads those that may have issued a CRL, and does not. To a ConformingVerifier a root that
// OpenSSL does not find is known all the same, and not trusted.
TEST_F(Tool, TrustedFileThatIsBroken_IsNotFoundOrAnError) {
  const Issued root = issueCA("CN=Own Root");
  writeFile(own("leaf.pem"), pem(issue({.subject = "CN=Leaf", .issuer = &root}).get()));
  fs::create_directory(own("crls"));
  addToDirectory(own("crls"), makeCRL({.issuer = &root}).get());
  const std::string good = pem(root.get());
  constexpr int kUnknown = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
  constexpr int kNotTrusted = X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
  const struct {
    const char* what;
    std::vector<std::string> files;  // of the root's name, in the order of their numbers
    int code;
    int path;    // the code of a Verifier without a revocation check
    int status;  // with one
  } rows[] = {
      {"good", {good}, 0, 0, 0},
      {"broken", {"garbage"}, kUnknown, kUnknown, 1},
      {"behind a broken one", {"garbage", good}, kNotTrusted, kUnknown, 1},
      {"before a broken one", {good, "garbage"}, 0, 0, 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    fs::remove_all(own("ca"));
    fs::create_directory(own("ca"));
    for (std::size_t i = 0; i < row.files.size(); ++i) {
      writeFile(own("ca/" + hashName(root.get(), static_cast<int>(i))), row.files[i]);
    }
    const Arguments verify = {"verify",    "--ca-dir",  own("ca"),
                              "--crl-dir", own("crls"), own("leaf.pem")};
    EXPECT_EQ(codeOf(verify), row.code);
    const Arguments classic = verify + Arguments{"--classic"};
    EXPECT_EQ(codeOf(classic + Arguments{"--no-flag", "CRL_CHECK"}), row.path);
    const CommandResult result = tool(classic);
    EXPECT_EQ(result.status, row.status) << result.err;
    const bool named = result.err.find(own("ca")) != std::string::npos;
    EXPECT_EQ(named, row.status == 2) << result.err;
  }
}

// A hash is eight digits to OpenSSL and a number to the library.
TEST_F(Tool, HashWithoutLeadingZeros_IsFoundForCRLsAndNotForThePath) {
  Issued root;
  for (int i = 0; root.get() == nullptr || hashName(root.get())[0] != '0'; ++i) {
    root = issueCA("CN=Own Root " + std::to_string(i));
  }
  writeFile(own("leaf.pem"), pem(issue({.subject = "CN=Leaf", .issuer = &root}).get()));
  const auto withoutZeros = [](const std::string& name) {
    return name.substr(name.find_first_not_of('0'));
  };
  for (const bool shortTrusted : {false, true}) {
    const std::string trusted = hashName(root.get());
    const Owned<X509_CRL> crl = makeCRL({.issuer = &root});
    for (const char* directory : {"ca", "crls"}) {
      fs::remove_all(own(directory));
      fs::create_directory(own(directory));
    }
    writeFile(own("ca/" + (shortTrusted ? withoutZeros(trusted) : trusted)), pem(root.get()));
    writeFile(own("crls/" + withoutZeros(crlHashName(crl.get()))), pem(crl.get()));
    const Arguments verify = {"verify",    "--ca-dir",  own("ca"),
                              "--crl-dir", own("crls"), own("leaf.pem")};
    EXPECT_EQ(codeOf(verify), shortTrusted ? X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN : 0);
    EXPECT_EQ(codeOf(verify + Arguments{"--classic"}),
              shortTrusted ? X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY : 0);
  }
}

TEST_F(Tool, FlagThatLeavesTheResponderOut_IsNoted) {
  constexpr char kNote[] =
      "  note: its OCSP responder is asked only with the flag CRL_CHECK_ALL; CRLs decide\n";
  const std::string named = "OCSP;URI:http://127.0.0.1:1/";
  const struct {
    const char* what;
    std::string access;
    Arguments options;
    bool noted;
  } rows[] = {
      {"only the leaf", named, {"--classic", "--no-flag", "CRL_CHECK_ALL"}, true},
      {"the whole chain", named, {"--classic"}, false},
      {"no revocation",
       named,
       {"--classic", "--no-flag", "CRL_CHECK", "--no-flag", "CRL_CHECK_ALL"},
       false},
      {"OpenSSL's revocation",
       named,
       {"--classic", "--no-flag", "CRL_CHECK_ALL", "--openssl-revocation"},
       false},
      {"no responder",
       "caIssuers;URI:http://a.test/",
       {"--classic", "--no-flag", "CRL_CHECK_ALL"},
       false},
      {"the conforming verifier asks it", named, {"--no-flag", "CRL_CHECK_ALL"}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const Pair pair =
        makePair({.subject = "CN=Leaf", .extensions = {{"authorityInfoAccess", row.access}}});
    const CommandResult text = tool(pair.verify() + row.options);
    EXPECT_EQ(text.out.find(kNote) != std::string::npos, row.noted) << text.out << text.err;
    const nlohmann::json reports = parsed(tool(pair.verify() + row.options + Arguments{"--json"}));
    EXPECT_EQ(reports.at(0).contains("notes"), row.noted) << reports;
    if (!row.noted) continue;
    EXPECT_EQ("  note: " + reports.at(0).at("notes").at(0).get<std::string>() + "\n", kNote);
  }
}

TEST_F(Tool, At_TakesThreeForms_AndMovesTheVerification) {
  const Pair pair = makePair(
      {.subject = "CN=Leaf", .notBefore = "20200229000000Z", .notAfter = "20300101000000Z"});
  const Arguments verify = pair.verify() + Arguments{"--no-flag", "CRL_CHECK", "--at"};
  struct Row {
    const char* at;
    int code;
  };
  static constexpr Row kRows[] = {
      {"2020-02-28T23:59:59Z", X509_V_ERR_CERT_NOT_YET_VALID},
      {"2020-02-28", X509_V_ERR_CERT_NOT_YET_VALID},
      {"@1582934399", X509_V_ERR_CERT_NOT_YET_VALID},
      {"2020-02-29T00:00:01Z", 0},
      {"@1582934401", 0},
      {"2020-03-01", 0},
      {"2029-12-31T23:59:59Z", 0},
      {"@1893455999", 0},
      {"2030-01-01T00:00:01Z", X509_V_ERR_CERT_HAS_EXPIRED},
      {"@1893456001", X509_V_ERR_CERT_HAS_EXPIRED},
      {"2030-01-02", X509_V_ERR_CERT_HAS_EXPIRED},
      {"9999-12-31T23:59:59Z", X509_V_ERR_CERT_HAS_EXPIRED},
      // Fractions are cut off: rounded up these would be in the next day.
      {"2020-02-28T23:59:59.999Z", X509_V_ERR_CERT_NOT_YET_VALID},
      {"@1582934399.999", X509_V_ERR_CERT_NOT_YET_VALID},
      {"2020-02-29T00:00:00.000000001Z", 0},
      {"2029-12-31T23:59:59.99999999999999999999Z", 0},
      {"@1893455999.5", 0},
      {"9999-12-31T23:59:59.9Z", X509_V_ERR_CERT_HAS_EXPIRED},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.at);
    EXPECT_EQ(codeOf(verify + Arguments{row.at}), row.code);
  }
}

TEST_F(Tool, At_AfterNextUpdateOfACRLThatIsStillFresh_IsAnExpiredCRL) {
  const std::string at = "@" + std::to_string(std::time(nullptr) + 30 * 86400);
  EXPECT_EQ(codeOf(verifyWith("good") + Arguments{"--at", at, person("good")}),
            X509_V_ERR_CRL_HAS_EXPIRED);
}

TEST_F(Tool, OpenSSLRevocation_LeavesTheCheckToOpenSSL) {
  const Arguments openssl = {"--classic", "--openssl-revocation"};
  EXPECT_EQ(codeOf(verifyWith("good") + openssl + Arguments{person("good")}), 0);
  EXPECT_EQ(codeOf(verifyWith("good") + openssl + Arguments{person("revoked")}), 23);
  EXPECT_EQ(codeOf(verifyWith("delta") + openssl + Arguments{person("delta-revoked")}), 23);
  // Unlike the library OpenSSL goes by the base CRL, which still lists it.
  EXPECT_EQ(codeOf(verifyWith("delta") + openssl + Arguments{person("delta-restored")}), 23);
  EXPECT_EQ(codeOf(verifyWith("delta") + Arguments{person("delta-restored")}), 0);
}

// ESC [, a line end, DEL, a C1 control, a right-to-left override, a line separator, bytes that are
// not UTF-8, letters that are, and what has no width.
constexpr char kNasty[] =
    "\x1b["
    "31m\n\x7f\xc2\x9b\xe2\x80\xae\xe2\x80\xa8\xff\xc0\xaf\xe0\x81\x81\xed\xa0\x80\xc3\xa4\xf0\x9f"
    "\x90\x88\xe2\x80\x8b\xef\xbb\xbf\xe2\x81\xa0z";
constexpr char kNastyEscaped[] =
    "\\1B["
    "31m\\0A\\7F\\C2\\9B\\E2\\80\\AE\\E2\\80\\A8\\FF\\C0\\AF\\E0\\81\\81\\ED\\A0\\80\xc3\xa4\xf0"
    "\x9f\x90\x88\\E2\\80\\8B\\EF\\BB\\BF\\E2\\81\\A0z";

TEST_F(Tool, NamesOfFiles_AreEscapedInText) {
  const std::string file = own(kNasty);
  fs::copy(person("revoked"), file);
  const CommandResult result = tool(verifyWith("good") + Arguments{file});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.starts_with(own(kNastyEscaped) + ": invalid, ")) << result.out;
  EXPECT_TRUE(result.err.starts_with(own(kNastyEscaped) + ": <7> ")) << result.err;
  EXPECT_EQ(linesIn(result.err), 1);
  const CommandResult missing = tool(verifyWith("good") + Arguments{file + "x"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.err, "pkx509: " + own(kNastyEscaped) + "x: No such file or directory\n");
}

TEST_F(Tool, NamesOfFiles_StayValidInJson) {
  const std::string readable =
      own("\x1b[31m\n\x7f\xc2\x9b\xe2\x80\xae\xe2\x80\x8b\xef\xbb\xbf\"\\\xc3\xa4");
  fs::copy(person("good"), readable);
  fs::copy(person("good"), own(kNasty));
  const CommandResult result =
      tool(verifyWith("good") + Arguments{"--json", readable, own(kNasty)});
  EXPECT_EQ(result.status, 0);
  for (const char c : result.out) {
    ASSERT_TRUE(c == '\n' || (c >= ' ' && c < '\x7f')) << static_cast<int>(c);
  }
  const nlohmann::json reports = parsed(result);
  EXPECT_EQ(reports.at(0).at("file"), readable);
  const std::string replaced = reports.at(1).at("file");
  EXPECT_NE(replaced.find("\xef\xbf\xbd"), std::string::npos) << replaced;
  EXPECT_TRUE(replaced.ends_with("\xc3\xa4\xf0\x9f\x90\x88\xe2\x80\x8b\xef\xbb\xbf\xe2\x81\xa0z"))
      << replaced;
}

TEST_F(Tool, NamesInCertificates_ReachTheTerminalEscaped) {
  const Pair pair = makePair({.subject = "CN=a\x1b[31m\nb\xc2\x9b\xe2\x80\xae\xe2\x80\x8b"});
  const CommandResult result = tool(pair.verify());
  EXPECT_EQ(result.status, 1);
  for (const std::string& text : {result.out, result.err}) {
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_EQ(text.find("\xc2\x9b"), std::string::npos) << text;
    EXPECT_EQ(text.find("\xe2\x80"), std::string::npos) << text;
    EXPECT_NE(text.find("CN=a\\1B[31m\\0Ab"), std::string::npos) << text;
  }
  EXPECT_EQ(linesIn(result.out), 3 + 2 * 3);
}

TEST_F(Tool, FileNamesThatLookLikeSomethingElse_AreFiles) {
  const Arguments verify = verifyWith("good");
  for (const char* name : {"verify", "[a,b]", "-x", "--json", "--x=", " "}) {
    SCOPED_TRACE(name);
    fs::copy(person("good"), own(name));
    const CommandResult result =
        shell("cd '" + own("") + "' && exec \"$0\" \"$@\"", verify + Arguments{"--", name});
    EXPECT_EQ(result.status, 0) << result.err;
  }
}

TEST_F(Tool, Help_NamesEverything) {
  const CommandResult help = tool({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  EXPECT_NE(help.out.find("verify"), std::string::npos);
  const CommandResult verify = tool({"verify", "--help"});
  EXPECT_EQ(verify.status, 0);
  EXPECT_EQ(verify.err, "");
  for (const char* text : {"--ca-dir",
                           "--untrusted",
                           "--crl-dir",
                           "--policy",
                           "--flag",
                           "--no-flag",
                           "--at",
                           "--deadline",
                           "--openssl-revocation",
                           "--classic",
                           "--security-level",
                           "--allow-address",
                           "--json",
                           "--explain",
                           "--quiet",
                           "--tempfail",
                           "--color",
                           "--help",
                           kCADirectory,
                           kCRLDirectory,
                           "Exit status",
                           "Examples"}) {
    EXPECT_NE(verify.out.find(text), std::string::npos) << text;
  }
}

TEST_F(Tool, Version_NamesLibraryAndOpenSSL) {
  const CommandResult result = tool({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(result.out.starts_with("pkx509 ")) << result.out;
  EXPECT_NE(result.out.find("libvlxpkx509 "), std::string::npos);
  EXPECT_NE(result.out.find(OpenSSL_version(OPENSSL_VERSION)), std::string::npos);
  EXPECT_EQ(linesIn(result.out), 1);
}

}  // namespace
}  // namespace Velantrix::Test
