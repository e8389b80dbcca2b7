// Why a verdict is what it is: the line, the tree, JSON and its schema, and the exit status that follows.
#include "JsonSchema.h"
#include "ToolFixture.h"
#include "support/Loopback.h"
#include "support/Pki.h"
#include "support/PrivateView.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

// What would end a line, drive a terminal or turn text around, in a name that is as wide as several
// lines, some of it in characters of two columns.
const std::string kHostile = "a\x1b[2J\r\nb\xc2\x9b\xe2\x80\xae\xe2\x80\xa8 " +
                             std::string(40, 'w') + ' ' + repeated("\xe7\x95\x8c", 50) +
                             std::string(120, 'x');

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class ToolReport : public ToolFixture {
 protected:
  static const json& schema() {
    static const json parsedOnce = json::parse(readFile(PKX509_SCHEMA));
    return parsedOnce;
  }

  static CommandResult inLocale(const std::string& locale, const Arguments& arguments) {
    return shell("LC_ALL=" + locale + " exec \"$0\" \"$@\"", arguments);
  }

  static json one(const Arguments& arguments) {
    return parsed(tool(arguments + Arguments{"--json"})).at(0);
  }

  // A leaf whose CRLs another one issues, whose own certificate has run out; names as given.
  Arguments verifyWithExpiredCRLIssuer(const std::string& name) const {
    const Issued root = issueCA("CN=Own Root");
    const Issued signer = issue({.subject = "CN=Signer " + name,
                                 .issuer = &root,
                                 .notBefore = -48h,
                                 .notAfter = -24h,
                                 .keyUsage = KU_CRL_SIGN});
    const Issued leaf =
        issue({.subject = "CN=Leaf " + name,
               .issuer = &root,
               .crlDistributionPoints = {{.crlIssuers = {"dirName:CN=Signer " + name}}}});
    for (const char* directory : {"ca", "crls"}) fs::create_directory(own(directory));
    addToDirectory(own("ca"), root.get());
    addToDirectory(
        own("crls"),
        makeCRL({.issuer = &signer, .idp = IssuingDistributionPoint{.indirect = true}}).get());
    writeFile(own("leaf.pem"), pem(leaf.get()) + pem(signer.get()));
    return {"verify", "--ca-dir", own("ca"), "--crl-dir", own("crls"), own("leaf.pem")};
  }
};

TEST_F(ToolReport, Line_StandsUnderTheVerdict_AndIsNotLoggedTwice) {
  // Each at the same time, which is in the line.
  const Arguments at = {"--at", "@" + std::to_string(std::time(nullptr))};
  const Arguments expired = verifyWith("expired") + at;
  for (const Arguments& use : {expired, classicWith("good") + at}) {
    const std::string file = person(use == expired ? "good" : "revoked");
    SCOPED_TRACE(file);
    const std::string line = one(use + Arguments{file}).at("line");
    const CommandResult text = tool(use + Arguments{file});
    ASSERT_GE(linesIn(text.out), 2);
    EXPECT_EQ(linesOf(text.out).at(1), "  " + line);
    EXPECT_EQ(text.err.find(line), std::string::npos) << text.err;
    EXPECT_EQ(text.err.find("<5>"), std::string::npos) << text.err;
    EXPECT_NE(text.err.find("<7>"), std::string::npos) << text.err;
  }
  // The log of JSON has all that was logged.
  const json report = one(verifyWith("expired") + Arguments{person("good")});
  const json logged = {{"priority", 5}, {"text", report.at("line")}};
  const json& log = report.at("log");
  EXPECT_EQ(std::count(log.begin(), log.end(), logged), 1) << log;
  EXPECT_FALSE(one(verifyWith("good") + Arguments{person("good")}).contains("line"));
}

TEST_F(ToolReport, Json_NamesCertificateRuleValuesSourceAndAdvice) {
  const json report = one(verifyWith("expired") + Arguments{person("good")});
  EXPECT_EQ(report.at("outcome"), "temporary");
  const json& finding = report.at("findings").at(0);
  EXPECT_EQ(finding.at("rule"), "crl-expired");
  EXPECT_EQ(finding.at("depth"), 0);
  EXPECT_EQ(finding.at("certificate").at("subject"), "CN=good,O=Example Mail");
  EXPECT_EQ(finding.at("details").at("crlIssuer"), "CN=Intermediate 2,O=Example Mail");
  EXPECT_EQ(finding.at("details").at("nextUpdate"), "2020-02-01T00:00:00Z");
  EXPECT_LT(finding.at("details").at("secondsFromCheckTime"), 0);
  EXPECT_EQ(finding.at("details").at("crlNumber"), "2");
  EXPECT_NE(finding.at("advice"), "");
  ASSERT_EQ(report.at("path").size(), 4U);
  EXPECT_EQ(report.at("path").at(0).at("revocation").at("status"), "undetermined");
  EXPECT_EQ(report.at("path").at(1).at("revocation").at("status"), "good");
  EXPECT_EQ(report.at("path").at(1).at("revocation").at("decidedBy").at(0).at("number"), "1");
  EXPECT_EQ(report.at("path").at(1).at("origin").at("kind"), "message");
  EXPECT_EQ(report.at("path").at(0).at("serial"), report.at("chain").at(0).at("serial"));
}

TEST_F(ToolReport, Json_OfEachSubcommand_FollowsTheSchema) {
  fs::copy(pki("ca"), kCADirectory);
  fs::copy(pki("crl/good"), kCRLDirectory);
  const Arguments nested = verifyWithExpiredCRLIssuer("a");
  const Arguments hostile = {"verify", "--ca-dir", pki("ca"), own("hostile.pem")};
  writeFile(own("hostile.pem"), pem(issue({.subject = "CN=" + kHostile}).get()));
  const ReservedPort port;
  const std::string nobody = "http://127.0.0.1:" + port.text() + "/ca.crl";
  const std::vector<Arguments> rows = {
      verifyWith("good") + Arguments{person("good"), person("revoked"), person("stranger")},
      verifyWith("expired") + Arguments{person("good")},
      verifyWith("missing") + Arguments{person("good")},
      verifyWith("wrong-scope") + Arguments{person("good")},
      classicWith("good") + Arguments{person("revoked"), person("expired")},
      classicWith("good") + Arguments{"--openssl-revocation", person("revoked")},
      nested,
      hostile,
      {"simple", person("good")},
      {"simple", "--conforming", person("revoked")},
      {"simple", "--require-key-usage", "--key-usage", "cRLSign", person("good")},
      {"ocsp", "--uri", nobody, "--chain", pki("intermediates.pem"), person("good")},
      {"crl", nobody, "ldap://127.0.0.1/CN=a"},
  };
  for (const Arguments& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row));
    const json document = parsed(tool(row + Arguments{"--json"}));
    EXPECT_EQ(schemaViolation(schema(), document), "") << document.dump(2);
    for (const json& object : document) EXPECT_EQ(object.at("schemaVersion"), 1);
  }
}

TEST_F(ToolReport, NestedFindings_HangBelowWhatTheyServe) {
  const Arguments verify = verifyWithExpiredCRLIssuer("a");
  const json report = one(verify);
  const json& finding = report.at("findings").at(0);
  EXPECT_EQ(finding.at("rule"), "crl-issuer-invalid") << report.dump(2);
  ASSERT_GE(finding.at("findings").size(), 1U) << report.dump(2);
  EXPECT_EQ(finding.at("findings").at(0).at("rule"), "expired");
  const std::string tree = inLocale("C", verify + Arguments{"--explain"}).out;
  const std::size_t outer = tree.find("\n  |- crl-issuer-invalid: ") == std::string::npos
                                ? tree.find("\n  `- crl-issuer-invalid: ")
                                : tree.find("\n  |- crl-issuer-invalid: ");
  const std::size_t inner = tree.find("`- expired: ");
  ASSERT_NE(outer, std::string::npos) << tree;
  ASSERT_NE(inner, std::string::npos) << tree;
  EXPECT_LT(outer, inner) << tree;
  EXPECT_LT(inner, tree.find("\n  path, as of ")) << tree;
}

TEST_F(ToolReport, Schema_RefusesWhatBreaksIt) {
  const json good = parsed(tool(verifyWith("expired") + Arguments{"--json", person("good")}));
  ASSERT_EQ(schemaViolation(schema(), good), "");
  const std::vector<std::pair<const char*, std::function<void(json&)>>> rows = {
      {"no version", [](json& report) { report.erase("schemaVersion"); }},
      {"another version", [](json& report) { report["schemaVersion"] = 2; }},
      {"no outcome", [](json& report) { report.erase("outcome"); }},
      {"an unknown outcome", [](json& report) { report["outcome"] = "perhaps"; }},
      {"no findings", [](json& report) { report.erase("findings"); }},
      {"findings in an object", [](json& report) { report["findings"] = json::object(); }},
      {"a rule of another form",
       [](json& report) { report["findings"][0]["rule"] = "CRL_EXPIRED"; }},
      {"a finding without advice", [](json& report) { report["findings"][0].erase("advice"); }},
      {"a nested finding without a rule",
       [](json& report) {
         json nested = report["findings"][0];
         nested.erase("rule");
         report["findings"][0]["findings"].push_back(nested);
       }},
      {"a CRL number that is a number",
       [](json& report) { report["findings"][0]["details"]["crlNumber"] = 2; }},
      {"a value in an object",
       [](json& report) { report["findings"][0]["details"]["new"] = json::object(); }},
      {"a depth below 0", [](json& report) { report["findings"][0]["depth"] = -1; }},
      {"a serial that is a number", [](json& report) { report["path"][0]["serial"] = 5; }},
      {"a serial in lower case", [](json& report) { report["path"][0]["serial"] = "5f"; }},
      {"a time of another form",
       [](json& report) { report["path"][0]["notAfter"] = "Nov 22 07:00:00 2026 GMT"; }},
      {"no status of revocation",
       [](json& report) { report["path"][0]["revocation"].erase("status"); }},
      {"a source without a kind",
       [](json& report) { report["sources"] = json::array({json::object()}); }},
      {"a count that is a text", [](json& report) { report["totals"]["lookups"] = "5"; }},
      {"two lines in one", [](json& report) { report["line"] = "a\nb"; }},
      {"no verdict", [](json& report) { report.erase("verdict"); }},
  };
  for (const auto& [what, damage] : rows) {
    json bad = good;
    damage(bad.at(0));
    EXPECT_NE(schemaViolation(schema(), bad), "") << what;
  }
  EXPECT_NE(schemaViolation(schema(), good.at(0)), "") << "it is no array";
  json newer = good;
  newer[0]["new"] = {1, 2};
  newer[0]["findings"][0]["details"]["new"] = 5;
  newer[0]["path"][0]["origin"]["kind"] = "new-kind";
  EXPECT_EQ(schemaViolation(schema(), newer), "") << "names may be added";
}

TEST_F(ToolReport, Validator_KnowsItsKeywords) {
  struct Row {
    const char* schema;
    const char* good;
    const char* bad;
  };
  static constexpr Row kRows[] = {
      {R"({"type": "object"})", "{}", "[]"},
      {R"({"type": "array"})", "[]", "{}"},
      {R"({"type": "string"})", R"("")", "1"},
      {R"({"type": "integer"})", "1", "1.5"},
      {R"({"type": "boolean"})", "true", "null"},
      {R"({"type": "null"})", "null", "false"},
      {R"({"enum": ["a", 1]})", "1", R"("b")"},
      {R"({"const": 1})", "1", "2"},
      {R"({"pattern": "^a+$"})", R"("aa")", R"("ab")"},
      {R"({"minimum": 1})", "1", "0"},
      {R"({"required": ["a"]})", R"({"a": 1})", R"({"b": 1})"},
      {R"({"properties": {"a": {"type": "null"}}})", R"({"b": 1})", R"({"a": 1})"},
      {R"({"properties": {"a": {}}, "additionalProperties": {"type": "null"}})", R"({"a": 1})",
       R"({"b": 1})"},
      {R"({"items": {"type": "null"}})", "[null]", "[null, 1]"},
      {R"({"oneOf": [{"minimum": 5}, {"const": 1}]})", "1", "2"},
      {R"({"oneOf": [{"minimum": 5}, {"const": 7}]})", "5", "7"},
      {R"({"$ref": "#/$defs/a", "$defs": {"a": {"type": "null"}}})", "null", "1"},
      {R"({"$ref": "#/$defs/a", "$defs": {"a": {"items": {"$ref": "#/$defs/a"}, "type": "array"}}})",
       "[[], [[]]]", "[[], [1]]"},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.schema);
    EXPECT_EQ(schemaViolation(json::parse(row.schema), json::parse(row.good)), "");
    EXPECT_NE(schemaViolation(json::parse(row.schema), json::parse(row.bad)), "");
  }
  EXPECT_THROW(schemaViolation(json::parse(R"({"maximum": 1})"), 1), std::invalid_argument);
}

TEST_F(ToolReport, Explain_OfAValidCertificate_SaysWhoSaysSo) {
  const CommandResult result =
      inLocale("C", verifyWith("good") + Arguments{"--explain", person("good")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const std::vector<std::string> lines = linesOf(result.out);
  const auto has = [&](const std::string& begin) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.starts_with(begin); });
  };
  for (const char* begin : {"  verifier: conforming", "  outcome: valid", "  path, as of ",
                            "  |- 0  CN=good,O=Example Mail", "  |     serial      "}) {
    EXPECT_TRUE(has(begin)) << begin << '\n' << result.out;
  }
  EXPECT_TRUE(has("  |     revocation  not revoked")) << result.out;
  EXPECT_TRUE(has("  |                 says CRL #1 of CN=Intermediate 2,O=Example Mail"))
      << result.out;
  EXPECT_TRUE(has("  |                 from file ")) << result.out;
  EXPECT_TRUE(has("  |- 1  CN=Intermediate 2,O=Example Mail")) << result.out;
  EXPECT_TRUE(has("  `- 3  CN=Root,O=Example Mail")) << result.out;
  EXPECT_TRUE(has("        from    trust directory ")) << result.out;
  EXPECT_TRUE(has("  took ")) << result.out;
  EXPECT_FALSE(has("  why")) << result.out;
  EXPECT_EQ(result.out.find("  chain 0:"), std::string::npos) << "the path tells it";
}

TEST_F(ToolReport, Explain_HasTheDecisiveFindingFirst_WithAdvice) {
  const CommandResult result =
      inLocale("C", verifyWith("expired") + Arguments{"--explain", person("good")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("\n  outcome: temporary: it may be valid later\n  why\n"),
            std::string::npos)
      << result.out;
  const std::size_t finding = result.out.find("- crl-expired: the CRL has expired\n");
  ASSERT_NE(finding, std::string::npos) << result.out;
  std::size_t at = finding;
  for (const char* row :
       {" certificate ", " CN=good,O=Example Mail, depth 0\n", " CRL issuer ", " CRL number ",
        " next update ", " 2020-02-01T00:00:00Z\n", " days before the time of the check\n",
        " what to do ", "\n  path, as of "}) {
    at = result.out.find(row, at);
    ASSERT_NE(at, std::string::npos) << row << '\n' << result.out;
  }
  EXPECT_NE(result.out.find("finding     crl-expired: ", at), std::string::npos) << result.out;
}

// Columns of text whose characters are one or, from CJK, two columns wide.
std::size_t columnsOf(const std::string& line) {
  std::size_t columns = 0;
  for (const char c : line) {
    const auto octet = static_cast<unsigned char>(c);
    if ((octet & 0xc0U) != 0x80) ++columns;
  }
  for (std::size_t at = 0; (at = line.find("\xe7\x95\x8c", at)) != std::string::npos; ++at)
    ++columns;
  return columns;
}

TEST_F(ToolReport, Explain_StaysWithin80Columns_WhateverNamesHold) {
  writeFile(own("hostile.pem"),
            pem(issue({.subject = "CN=" + kHostile, .issuerName = "CN=Issuer " + kHostile}).get()));
  // A directory's name reaches the tree as it is; it may be as long as 255 octets.
  const std::string crls = own(kHostile.substr(0, 200));
  fs::copy(pki("crl/expired"), crls, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  const std::vector<Arguments> rows = {
      {"verify", "--ca-dir", pki("ca"), own("hostile.pem")},
      {"verify", "--ca-dir", pki("ca"), "--untrusted", pki("intermediates.pem"), "--crl-dir", crls,
       person("good")},
      verifyWithExpiredCRLIssuer(kHostile)};
  for (const Arguments& row : rows) {
    for (const char* locale : {"C", "C.UTF-8"}) {
      const CommandResult result = inLocale(locale, row + Arguments{"--explain"});
      EXPECT_EQ(result.status, 1) << result.err;
      const std::vector<std::string> lines = linesOf(result.out);
      // The first line begins with the file as it was given.
      for (std::size_t i = 1; i < lines.size(); ++i) {
        EXPECT_LE(columnsOf(lines[i]), 80U) << lines[i];
        EXPECT_TRUE(lines[i].starts_with("  ")) << lines[i];
      }
      for (const char* raw : {"\x1b", "\r", "\xc2\x9b", "\xe2\x80\xae", "\xe2\x80\xa8"}) {
        EXPECT_EQ(result.out.find(raw), std::string::npos) << result.out;
      }
      const bool boxes = result.out.find("\u2514") != std::string::npos;
      EXPECT_EQ(boxes, std::string(locale) == "C.UTF-8") << result.out;
      EXPECT_EQ(result.out.find("`- ") == std::string::npos, boxes) << result.out;
      EXPECT_NE(result.out.find("\\1B[2J\\0D\\0Ab\\C2\\9B"), std::string::npos) << result.out;
    }
  }
}

TEST_F(ToolReport, Explain_OfTheSimpleVerifier) {
  fs::copy(pki("ca"), kCADirectory);
  const CommandResult result = inLocale("C", {"simple", "--explain", person("stranger")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("- issuer-unknown: "), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("  `- 0  CN=stranger,O=Example Mail\n"), std::string::npos)
      << result.out;
}

TEST_F(ToolReport, Status_IsThatOfTheWorst_AndQuietPrintsNothing) {
  const std::string good = person("good");
  const Arguments temporary = verifyWith("expired");
  ASSERT_EQ(one(temporary + Arguments{good}).at("outcome"), "temporary");
  ASSERT_EQ(one(temporary + Arguments{person("expired")}).at("outcome"), "permanent");
  const std::string nothing = own("nothing");
  const ReservedPort port;
  const std::string nobody = "http://127.0.0.1:" + port.text() + "/ca.crl";
  const Arguments ocsp = {"ocsp", "--uri", nobody, "--chain", pki("intermediates.pem"), good};
  struct Row {
    Arguments arguments;
    int status;
    int withTempFail;
  };
  const std::vector<Row> rows = {
      {verifyWith("good") + Arguments{good}, 0, 0},
      {temporary + Arguments{good}, 1, 75},
      {temporary + Arguments{good, good}, 1, 75},
      {temporary + Arguments{person("expired")}, 1, 1},
      {temporary + Arguments{person("expired"), good}, 1, 1},
      {temporary + Arguments{good, person("expired")}, 1, 1},
      {temporary + Arguments{good, nothing}, 2, 2},
      {temporary + Arguments{nothing, good}, 2, 2},
      {temporary + Arguments{person("expired"), nothing, good}, 2, 2},
      {{"crl", nobody}, 1, 75},
      {{"crl", nobody, "ldap://127.0.0.1/CN=a"}, 1, 1},
      {ocsp, 2, 75},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    EXPECT_EQ(tool(row.arguments).status, row.status);
    EXPECT_EQ(tool(row.arguments + Arguments{"--tempfail"}).status, row.withTempFail);
    const CommandResult quiet = tool(row.arguments + Arguments{"--quiet", "--tempfail"});
    EXPECT_EQ(quiet.status, row.withTempFail);
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.err.find("<7>"), std::string::npos) << quiet.err;
    const bool named =
        std::find(row.arguments.begin(), row.arguments.end(), nothing) != row.arguments.end();
    EXPECT_EQ(quiet.err.find("pkx509: " + nothing + ": ") != std::string::npos, named) << quiet.err;
  }
  fs::copy(pki("ca"), kCADirectory);
  for (const char* name : {"one", "two"}) {
    fs::copy(pki(std::string("work/") + name + "/cert.pem"),
             fs::path(kCADirectory) / (std::string(name) + ".pem"));
  }
  command({"openssl", "rehash", kCADirectory});
  fs::copy(pki("crl/expired"), kCRLDirectory);
  EXPECT_EQ(tool({"simple", "--conforming", "--quiet", good}).status, 1);
  EXPECT_EQ(tool({"simple", "--conforming", "--quiet", "--tempfail", good}).status, 75);
  EXPECT_EQ(tool({"simple", "--conforming", "--quiet", "--tempfail", person("expired")}).status, 1);
}

TEST_F(ToolReport, FormsOfOutput_ExcludeEachOther) {
  for (const Arguments& forms :
       {Arguments{"--explain", "--json"}, {"--explain", "--quiet"}, {"--quiet", "--json"}}) {
    const CommandResult result = tool(verifyWith("good") + forms + Arguments{person("good")});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(linesIn(result.err), 1) << result.err;
  }
}

class ToolWarnings : public ToolFixture {
 protected:
  static std::string warning(const std::string& path, const std::string& reason) {
    return "pkx509: warning: " + path + ": " + reason + "\n";
  }
  static constexpr char kNone[] = "No such file or directory";
};

TEST_F(ToolWarnings, Simple_NamesATrustDirectoryThatHasNone) {
  EXPECT_TRUE(
      tool({"simple", person("good")})
          .err.starts_with(warning(kCADirectory,
                                   "no file in it is named by a hash: no certificate is trusted")));
  fs::remove(kCADirectory);
  const CommandResult missing = tool({"simple", "--json", person("good")});
  fs::create_directory(kCADirectory);
  EXPECT_EQ(missing.err, warning(kCADirectory, std::string(kNone) + ": no certificate is trusted"));
  fs::copy(pki("ca"), kCADirectory);
  EXPECT_EQ(tool({"simple", "--json", person("good")}).err, "");
}

TEST_F(ToolWarnings, CacheThatIsNotThere_IsNamedOnce) {
  fs::copy(pki("ca"), kCADirectory);
  fs::remove(kCRLCacheDirectory);
  const CommandResult verify = tool(verifyWith("good") + Arguments{person("good"), person("good")});
  const CommandResult simple = tool({"simple", "--quiet", person("stranger")});
  writeFile(kCRLCacheDirectory, "");
  const CommandResult file = tool(verifyWith("good") + Arguments{"--quiet", person("good")});
  fs::remove(kCRLCacheDirectory);
  fs::create_directory(kCRLCacheDirectory);
  EXPECT_EQ(verify.err, warning(kCRLCacheDirectory, std::string(kNone) + ": no CRL is kept"));
  EXPECT_EQ(simple.err, verify.err);
  EXPECT_EQ(file.err, warning(kCRLCacheDirectory, "Not a directory: no CRL is kept"));
}

TEST_F(ToolWarnings, FilesThatCannotBeRead_AreNamedOnceEach) {
  fs::copy(pki("ca"), own("ca"), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  fs::create_directory(own("crls"));
  fs::create_symlink("gone", own("ca/00000001.0"));
  writeFile(own("crls/00000002.r0"), "");
  fs::create_directory(own("crls/00000003.r0"));
  writeFile(own("crls/00000004.r0"), "a");
  ASSERT_EQ(::chmod(own("crls/00000004.r0").c_str(), 0), 0);
  writeFile(own("crls/readme"), "");
  obeyPermissions();
  const CommandResult result = tool(
      {"verify", "--quiet", "--ca-dir", own("ca"), "--crl-dir", own("crls"), person("stranger")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, warning(own("ca/00000001.0"), kNone) +
                            warning(own("crls/00000002.r0"), "the file is empty") +
                            warning(own("crls/00000003.r0"), "not a regular file") +
                            warning(own("crls/00000004.r0"), "Permission denied"));
  for (int i = 10; i < 40; ++i) writeFile(own("crls/000000" + std::to_string(i) + ".r0"), "");
  const CommandResult many = tool(
      {"verify", "--quiet", "--ca-dir", pki("ca"), "--crl-dir", own("crls"), person("stranger")});
  EXPECT_EQ(linesIn(many.err), 17);
  EXPECT_TRUE(many.err.ends_with(warning(own("crls"), "17 more files cannot be read"))) << many.err;
}

}  // namespace
}  // namespace Velantrix::Test
