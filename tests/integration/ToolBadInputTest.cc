// What the tool refuses: one clear line on standard error, exit status 2, never a crash.
#include "ToolFixture.h"
#include "support/Pki.h"
#include "support/PrivateView.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;

class ToolBadInput : public ToolFixture {
 protected:
  // Refused with one line that says `text`, and nothing else.
  static void expectRefused(const CommandResult& result, const std::string& text) {
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "pkx509: " + text + "\n");
  }

  static bool mayRead(const std::string& path) {
    return runCommand({"test", "-r", path}).status == 0;
  }

  std::string file(const std::string& name, std::string_view content) const {
    writeFile(own(name), content);
    return own(name);
  }
};

TEST_F(ToolBadInput, FilesThatAreNoCertificates_AreNamed) {
  const std::string leaf = readFile(person("good"));
  const std::string cut = der(certFromDer(der(issue({}).get())).get()).substr(0, 200);
  std::string encrypted = leaf;
  encrypted.insert(
      encrypted.find("CERTIFICATE-----\n") + 17,
      "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00000000000000000000000000000000\n\n");
  const std::string huge = file("huge", "");
  fs::resize_file(huge, 128 * 1024 * 1024 + 1);
  struct Row {
    std::string path;
    std::string reason;  // all of it, or the begin when it ends in "..."
  };
  const std::vector<Row> rows = {
      {own("nothing"), "No such file or directory"},
      {own("."), "Is a directory"},
      {"/dev/null", "Not a regular file."},
      {"/dev/zero", "Not a regular file."},
      {file("empty", ""), "there is no certificate in it"},
      {file("text", "no certificate\n"), "..."},
      {file("cut.der", cut), "..."},
      {file("cut.pem", leaf.substr(0, leaf.size() / 2)), "..."},
      {file("trailing.der", der(issue({}).get()) + "x"), "..."},
      {file("encrypted.pem", encrypted), "..."},
      {file("broken.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"), "..."},
      {pki("crl/good/base.crl"), "there is no certificate in it"},
      {pki("work/good.key"), "there is no certificate in it"},
      {huge, "..."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    for (const Arguments& use : {Arguments{}, Arguments{person("good"), "--untrusted"}}) {
      const CommandResult result = tool(verifyWith("good") + use + Arguments{row.path});
      if (row.reason != "...") {
        expectRefused(result, row.path + ": " + row.reason);
        continue;
      }
      EXPECT_EQ(result.status, 2);
      EXPECT_EQ(result.out, "");
      EXPECT_TRUE(result.err.starts_with("pkx509: " + row.path + ": ")) << result.err;
      EXPECT_EQ(linesIn(result.err), 1) << result.err;
    }
  }
}

TEST_F(ToolBadInput, StandardInput_IsNamedToo) {
  const Arguments verify = verifyWith("good");
  expectRefused(tool(verify + Arguments{"-"}), "standard input: there is no certificate in it");
  expectRefused(tool(verify + Arguments{"-"}, readFile(pki("crl/good/base.crl"))),
                "standard input: there is no certificate in it");
  const CommandResult text = tool(verify + Arguments{"-"}, "no certificate");
  EXPECT_EQ(text.status, 2);
  EXPECT_TRUE(text.err.starts_with("pkx509: standard input: ")) << text.err;
  EXPECT_EQ(linesIn(text.err), 1);
  expectRefused(shell("exec \"$0\" \"$@\" <&-", verify + Arguments{"-"}),
                "standard input: Bad file descriptor");
  expectRefused(shell("exec \"$0\" \"$@\" </", verify + Arguments{"-"}),
                "standard input: Is a directory");
  expectRefused(shell("exec \"$0\" \"$@\" </dev/zero", verify + Arguments{"-"}),
                "standard input: more than can be read");
  const std::string once = "standard input (\"-\") can be read only once";
  expectRefused(tool(verify + Arguments{"-", "-"}), once);
  expectRefused(tool(verify + Arguments{"-", "--untrusted", "-"}), once);
}

TEST_F(ToolBadInput, DirectoriesThatCannotServe_AreNamed) {
  const std::string empty = own("none");
  fs::create_directory(empty);
  const std::string unhashed = own("unhashed");
  fs::create_directory(unhashed);
  for (const char* name : {"cafe.pem", "person.0", "cafe.", "cafe.r", "cafe.0r", "cafe", ".0"}) {
    fs::copy(person("good"), unhashed + "/" + name);
  }
  const std::string secret = own("secret");
  fs::copy(pki("crl/good"), secret);
  const std::string names = own("names");
  fs::copy(pki("crl/good"), names);
  ASSERT_EQ(::chmod(secret.c_str(), 0), 0);
  ASSERT_EQ(::chmod(names.c_str(), 0600 & 0444), 0);
  obeyPermissions();
  ASSERT_FALSE(mayRead(secret)) << "the test needs a user whom permissions bind";
  const std::string none =
      ": no file in it is named by a hash; \"openssl rehash\" makes such names";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {own("nothing"), ": No such file or directory"},
      {"", ": No such file or directory"},
      {person("good"), ": Not a directory"},
      {secret, ": Permission denied"},
      {names, ": Permission denied"},
      {empty, none},
      {unhashed, none},
  };
  for (const auto& [directory, reason] : rows) {
    SCOPED_TRACE(directory);
    expectRefused(tool({"verify", "--ca-dir", directory, person("good")}),
                  "--ca-dir: " + directory + reason);
    expectRefused(tool(verifyWith("good") + Arguments{"--crl-dir", directory, person("good")}),
                  "--crl-dir: " + directory + reason);
  }
  expectRefused(tool({"verify", person("good")}), "--ca-dir: " + std::string(kCADirectory) + none);
  ASSERT_EQ(::chmod(secret.c_str(), 0700), 0);
  ASSERT_EQ(::chmod(names.c_str(), 0700), 0);
}

TEST_F(ToolBadInput, CommandLinesThatMakeNoSense_AreExplained) {
  const std::string usage = "; --help shows the usage";
  const std::string noPolicy = "\" is no object identifier; give one like 2.5.29.32.0";
  const std::string noFlag =
      "\" is no verification flag of OpenSSL; pkx509 verify --help lists them";
  const std::string noKind = "\" is none of loopback, link-local, multicast, unspecified and all";
  struct Row {
    Arguments arguments;
    std::string text;
  };
  const std::vector<Row> rows = {
      {{}, "a subcommand is missing" + usage},
      {{"certify"}, "unknown argument: certify" + usage},
      {{"--json", "verify", "x"}, "unknown argument: --json" + usage},
      {{"verify", "x", "--nonsense"}, "unknown argument: --nonsense" + usage},
      {{"verify", "--nonsense"}, "unknown argument: --nonsense" + usage},
      {{"verify", "-z", "x"}, "unknown argument: -z" + usage},
      {{"verify", "x", "--untrusted="}, "--untrusted=: the value is missing"},
      {{"verify", "--untrusted=", "x", "y"}, "--untrusted=: the value is missing"},
      {{"verify", "x", "--policy", "1.2.x"}, "--policy: \"1.2.x" + noPolicy},
      {{"verify", "x", "--policy", "anyPolicy"}, "--policy: \"anyPolicy" + noPolicy},
      {{"verify", "x", "--policy", ""}, "--policy: \"" + noPolicy},
      {{"verify", "x", "--policy", "9.9.9"}, "--policy: \"9.9.9" + noPolicy},
      {{"verify", "x", "--flag", "CRL_CHECKS"}, "\"CRL_CHECKS" + noFlag},
      {{"verify", "x", "--no-flag", ""}, "\"" + noFlag},
      {{"verify", "x", "--no-flag", "X509_V_FLAG_"}, "\"X509_V_FLAG_" + noFlag},
      {{"verify", "x", "--flag", "0x20"}, "\"0x20" + noFlag},
      {{"verify", "x", "--openssl-revocation"}, "--openssl-revocation requires --classic" + usage},
      {{"verify", "x", "--classic", "--security-level", "2"},
       "--security-level excludes --classic" + usage},
      {{"verify", "x", "--classic", "--allow-address", "all"},
       "--allow-address excludes --classic" + usage},
      {{"verify", "x", "--allow-address", "private"}, "--allow-address: \"private" + noKind},
      {{"verify", "x", "--allow-address", ""}, "--allow-address: \"" + noKind},
      {{"verify", "x", "--allow-address", "Loopback"}, "--allow-address: \"Loopback" + noKind},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    expectRefused(tool(row.arguments), row.text);
  }
  // The wording of these is the command-line parser's.
  for (const Arguments& arguments :
       {Arguments{"verify"}, Arguments{"verify", "x", "--at"}, Arguments{"verify", "--ca-dir"},
        Arguments{"verify", "x", "--at", "@1", "--at", "@2"},
        Arguments{"verify", "x", "--security-level", "6"},
        Arguments{"verify", "x", "--security-level", "-1"},
        Arguments{"verify", "x", "--security-level", "high"},
        Arguments{"verify", "x", "--security-level", "1", "--security-level", "2"},
        Arguments{"verify", "x", "--json=maybe"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const CommandResult result = tool(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("pkx509: ") && result.err.ends_with(usage + "\n"))
        << result.err;
    EXPECT_EQ(linesIn(result.err), 1) << result.err;
  }
}

TEST_F(ToolBadInput, TimesThatNoCalendarHas_AreRefused) {
  for (const char* at : {"",
                         "now",
                         "2026",
                         "2026-11",
                         "2026-13-01",
                         "2026-00-10",
                         "2026-11-00",
                         "2026-02-29",
                         "2026-02-30",
                         "2026-11-21T",
                         "2026-11-21Z",
                         "2026-11-21T05:00Z",
                         "2026-11-21T05:00:00",
                         "2026-11-21T05:00:00+01:00",
                         "2026-11-21T24:00:00Z",
                         "2026-11-21T05:60:00Z",
                         "2026-11-21T05:00:60Z",
                         "2026-11-21T05:00:00ZZ",
                         "2026-11-21 05:00:00Z",
                         "2026-11-21t05:00:00z",
                         "26-11-21",
                         "+026-11-21",
                         "2026-1 -21",
                         "2026-11-21T-5:00:00Z",
                         " 2026-11-21",
                         "2026-11-21 ",
                         "2026/11/21",
                         "1795237200",
                         "@",
                         "@x",
                         "@1x",
                         "@ 1",
                         "@+1",
                         "@1.",
                         "@.5",
                         "@1.5.5",
                         "@1.-5",
                         "@1,5",
                         "2026-11-21.5",
                         "2026-11-21T05:00:00.Z",
                         "2026-11-21T05:00:00.5",
                         "2026-11-21T05:00:00,5Z",
                         "2026-11-21T05:00:00.5xZ",
                         "2026-11-21T05:00.5Z",
                         "@99999999999999999999",
                         "@0x10"}) {
    SCOPED_TRACE(at);
    expectRefused(tool({"verify", "x", "--at", at}),
                  std::string("--at: \"") + at +
                      "\" is no time; give 2026-11-21T05:00:00Z, 2026-11-21 or @1795237200");
  }
  for (const char* at : {"@0", "@0.9", "@-0.5", "@-1", "1970-01-01", "1969-12-31T23:59:59Z",
                         "0000-01-01", "@253402300800", "@9223372036854775807"}) {
    SCOPED_TRACE(at);
    expectRefused(tool({"verify", "x", "--at", at}),
                  std::string("--at: \"") + at + "\" is not between 1970 and 9999");
  }
}

TEST_F(ToolBadInput, OneOfSeveralFiles_LeavesTheOthersTheirReports) {
  const Arguments verify =
      verifyWith("good") + Arguments{own("nothing"), person("revoked"), person("good")};
  const CommandResult text = tool(verify);
  EXPECT_EQ(text.status, 2);
  EXPECT_NE(text.out.find(person("revoked") + ": invalid, code 23 "), std::string::npos);
  EXPECT_NE(text.out.find(person("good") + ": valid, "), std::string::npos);
  EXPECT_TRUE(text.err.starts_with("pkx509: " + own("nothing") + ": No such file or directory\n"))
      << text.err;
  const CommandResult json = tool(verify + Arguments{"--json"});
  EXPECT_EQ(json.status, 2);
  EXPECT_EQ(json.err, "pkx509: " + own("nothing") + ": No such file or directory\n");
  EXPECT_EQ(parsed(json).size(), 2U);
  EXPECT_EQ(parsed(tool({"verify", "--json", "--ca-dir", pki("ca"), own("nothing")})),
            nlohmann::json::array());
}

TEST_F(ToolBadInput, MalformedCRL_IsAnErrorOfTheClassicVerifierForTheCertificatesThatNeedIt) {
  const std::string directory = own("crls");
  fs::copy(pki("crl/good"), directory,
           fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  std::string malformed;
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (fs::is_symlink(entry) && fs::read_symlink(entry) == "base.crl") malformed = entry.path();
  }
  writeFile(directory + "/base.crl", "garbage");
  const Arguments verify = {
      "verify",    "--ca-dir", pki("ca"),      "--untrusted",      pki("intermediates.pem"),
      "--crl-dir", directory,  person("good"), person("stranger"), "--classic"};
  const CommandResult text = tool(verify);
  EXPECT_EQ(text.status, 2);
  EXPECT_TRUE(text.err.starts_with("pkx509: " + person("good") + ": " + malformed + ": "))
      << text.err;
  EXPECT_TRUE(text.out.starts_with(person("stranger") + ": invalid, code 20 ")) << text.out;
  const CommandResult json = tool(verify + Arguments{"--json"});
  EXPECT_EQ(json.status, 2);
  EXPECT_EQ(linesIn(json.err), 1) << json.err;
  ASSERT_EQ(parsed(json).size(), 1U);
  EXPECT_EQ(parsed(json).at(0).at("file"), person("stranger"));
  EXPECT_EQ(parsed(json).at(0).at("log").size(), 1U);
}

TEST_F(ToolBadInput, WhatCannotBeRead_IsPassedOverByTheConformingVerifier_WithALine) {
  const std::string directory = own("crls");
  fs::copy(pki("crl/good"), directory,
           fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  writeFile(directory + "/base.crl", "garbage");
  const Arguments broken = {
      "verify",    "--ca-dir", pki("ca"),     "--untrusted", pki("intermediates.pem"),
      "--crl-dir", directory,  person("good")};
  const CommandResult missing = tool(broken);
  EXPECT_TRUE(missing.out.starts_with(person("good") + ": invalid, code 3 ")) << missing.out;
  EXPECT_EQ(missing.status, 1);
  const std::string line = person("good") + ": <7> Passed over " + directory + "/";
  EXPECT_EQ(missing.err.find(line), 0U) << missing.err;
  // With the right one beside it nothing is missing.
  const CommandResult beside = tool(broken + Arguments{"--crl-dir", pki("crl/good")});
  EXPECT_EQ(beside.status, 0) << beside.out;
  EXPECT_NE(beside.err.find(line), std::string::npos) << beside.err;
}

TEST_F(ToolBadInput, LogLinesBeforeAnError_AreShownAsText_AndBelongToNobodyElseInJson) {
  const std::string directory = own("crls");
  fs::create_directory(directory);
  for (const char* name : {"root.crl", "base.crl"}) fs::copy(pki("work/") + name, directory);
  // Its issuer is not to be found, which logs a line without a text, and the one after it is
  // broken.
  const Issued other = issueCA("O=Example Mail,CN=Intermediate 2");
  writeFile(directory + "/other.crl", pem(makeCRL({.issuer = &other}).get()));
  fs::copy(pki("work/one.crl"), directory);
  command({"openssl", "rehash", directory});
  writeFile(directory + "/one.crl", "garbage");
  const Arguments verify = {
      "verify",    "--ca-dir", pki("ca"),      "--untrusted",      pki("intermediates.pem"),
      "--crl-dir", directory,  person("good"), person("stranger"), "--classic"};
  const CommandResult text = tool(verify);
  EXPECT_EQ(text.status, 2);
  EXPECT_TRUE(text.err.starts_with(person("good") + ": <0> \npkx509: " + person("good") + ": " +
                                   directory + "/"))
      << text.err;
  const CommandResult json = tool(verify + Arguments{"--json"});
  EXPECT_EQ(json.status, 2);
  EXPECT_EQ(linesIn(json.err), 1) << json.err;
  ASSERT_EQ(parsed(json).size(), 1U);
  EXPECT_EQ(parsed(json).at(0).at("log").size(), 1U) << json.out;
}

TEST_F(ToolBadInput, UnreadableFixedCRLDirectory_IsAnErrorOfTheClassicVerifier) {
  ASSERT_EQ(::chmod(kCRLDirectory, 0), 0);
  obeyPermissions();
  ASSERT_FALSE(mayRead(kCRLDirectory)) << "the test needs a user whom permissions bind";
  const CommandResult result = tool(classicWith("good") + Arguments{person("good")});
  const CommandResult conforming = tool(verifyWith("good") + Arguments{person("good")});
  ASSERT_EQ(::chmod(kCRLDirectory, 0755), 0);
  EXPECT_EQ(conforming.status, 0) << conforming.out;
  EXPECT_NE(conforming.err.find(kCRLDirectory), std::string::npos) << conforming.err;
  expectRefused(result, person("good") + ": " + kCRLDirectory + ": Permission denied");
}

TEST_F(ToolBadInput, OutputThatCannotBeWritten_IsAnError) {
  const std::string fifo = own("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const Arguments& arguments :
       {Arguments{"--version"}, Arguments{"--help"}, Arguments{"verify", "--help"},
        verifyWith("good") + Arguments{person("good")},
        verifyWith("good") + Arguments{person("good"), "--json"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    expectRefused(shell("exec \"$0\" \"$@\" >&-", arguments),
                  "standard output: Bad file descriptor");
    expectRefused(shell("exec \"$0\" \"$@\" >/dev/full", arguments),
                  "standard output: No space left on device");
    // A pipe whose only reader has gone.
    expectRefused(
        shell("exec 3<>'" + fifo + "' 4>'" + fifo + "' 3<&-; exec \"$0\" \"$@\" >&4", arguments),
        "standard output: Broken pipe");
  }
}

TEST_F(ToolBadInput, ClosedStandardStreams_GetNoOtherFile) {
  const Arguments verify = verifyWith("good") + Arguments{person("revoked")};
  EXPECT_EQ(shell("exec \"$0\" \"$@\" 2>&-", verify).status, 1);
  EXPECT_EQ(shell("exec \"$0\" \"$@\" <&- 2>&-", verify).status, 1);
  EXPECT_EQ(shell("exec \"$0\" \"$@\" <&- >&- 2>&-", verify).status, 2);
  // While the tool reads a certificate it can be seen what its first descriptors are.
  const std::string fifo = own("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const CommandResult result =
      shell("\"$0\" \"$@\" <&- >&- 2>&- & exec 3>'" + fifo +
                "'; for n in 0 1 2; do readlink /proc/$!/fd/$n; done; exec 3>&-; wait",
            verifyWith("good") + Arguments{fifo});
  EXPECT_EQ(result.out, "/dev/null\n/dev/null\n/dev/null\n");
}

TEST_F(ToolBadInput, DamagedCertificatesAndCRLs_GiveAVerdictOrAnError) {
  // Many at a time: what takes the time is the start of the tool. Each has a root and a CRL of its own.
  constexpr int kAtATime = 10;
  struct Genuine {
    std::string leafFile;
    std::string leaf;
    std::string crlFile;
    std::string crl;
  };
  std::vector<Genuine> all;
  fs::create_directory(own("ca"));
  fs::create_directory(own("crls"));
  for (int i = 0; i < kAtATime; ++i) {
    const std::string name = "CN=Root " + std::to_string(i);
    const Issued root = issueCA(name);
    const Issued leaf = issue({.subject = "CN=Leaf",
                               .issuer = &root,
                               .crlDistributionPoints = {{.fullNames = {"dirName:" + name}}},
                               .extensions = {{"certificatePolicies", "1.2.3.4"},
                                              {"authorityInfoAccess", "OCSP;URI:http://a.test/"}}});
    const auto crl = makeCRL({.issuer = &root,
                              .revoked = {{.serial = 7, .reason = 1}},
                              .idp = IssuingDistributionPoint{.fullNames = {"dirName:" + name}}});
    addToDirectory(own("ca"), root.get());
    const std::string crlFile = addToDirectory(own("crls"), crl.get());
    all.push_back({file("leaf-" + std::to_string(i) + ".der", der(leaf.get())), der(leaf.get()),
                   crlFile, der(crl.get())});
  }
  Arguments verify = {"verify", "--ca-dir", own("ca"), "--crl-dir", own("crls")};
  for (const Genuine& one : all) verify.push_back(one.leafFile);
  const Arguments classic = verify + Arguments{"--classic"};
  ASSERT_EQ(tool(verify).status, 0);
  ASSERT_EQ(tool(classic).status, 0);

  std::mt19937 random(20261121);
  const auto damaged = [&random](std::string bytes) {
    const std::size_t place = random() % bytes.size();
    switch (random() % 3) {
      case 0:
        bytes[place] = static_cast<char>(random());
        break;
      case 1:
        bytes[place] = static_cast<char>(bytes[place] ^ (1 << (random() % 8)));
        break;
      default:
        bytes.resize(place);
        break;
    }
    return bytes;
  };
  for (int i = 0; i < 200 / kAtATime; ++i) {
    SCOPED_TRACE(i);
    const bool leavesAreDamaged = i % 2 == 0;
    for (const Genuine& one : all) {
      writeFile(one.leafFile, leavesAreDamaged ? damaged(one.leaf) : one.leaf);
      writeFile(one.crlFile, leavesAreDamaged ? one.crl : damaged(one.crl));
    }
    const CommandResult result = tool(i % 4 < 2 ? verify : classic);
    ASSERT_LE(result.status, 2) << result.err;
    bool anyIsRefused = false;
    for (const Genuine& one : all) {
      const bool isRefused = result.err.find("pkx509: " + one.leafFile + ": ") != std::string::npos;
      const bool hasVerdict = result.out.find(one.leafFile + ": ") != std::string::npos;
      EXPECT_NE(isRefused, hasVerdict) << one.leafFile << '\n' << result.out << result.err;
      anyIsRefused = anyIsRefused || isRefused;
    }
    EXPECT_EQ(result.status == 2, anyIsRefused) << result.err;
  }
}

}  // namespace
}  // namespace Velantrix::Test
