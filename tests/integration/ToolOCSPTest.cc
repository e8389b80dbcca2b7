// `pkx509 ocsp`: the real responder of the openssl command, and servers that misbehave.
#include "ToolFixture.h"
#include "support/Exchange.h"
#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/Loopback.h"
#include "support/OCSPResponder.h"
#include "support/Pki.h"
#include "support/PrivateView.h"

#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

// The rule of code 2, what the line says about the reason, and the outcome.
struct Why {
  std::string rule = "ocsp-unreachable";
  std::string text = {};
  std::string outcome = "temporary";
};

class ToolOCSP : public ToolFixture {
 protected:
  // No PKI of the openssl command is needed.
  static void SetUpTestSuite() {}
  static void TearDownTestSuite() {}

  void SetUp() override {
    ToolFixture::SetUp();
    write("chain.pem", pem(ca.get()));
    fs::create_directory(own("trusted"));
    addToDirectory(own("trusted"), root.get());
  }

  std::string write(const std::string& name, std::string_view content) const {
    writeFile(own(name), content);
    return own(name);
  }

  // A certificate that names the responders; none when there are no URIs.
  Issued leafFor(const std::vector<std::string>& uris) const {
    CertificateOptions options{.subject = "CN=Leaf", .issuer = &ca};
    std::string value;
    for (const std::string& uri : uris) value += (value.empty() ? "OCSP;URI:" : ",OCSP;URI:") + uri;
    if (!value.empty()) options.extensions = {{"authorityInfoAccess", value}};
    return issue(options);
  }

  Arguments ask(const Issued& leaf) const {
    return {"ocsp", "--chain", own("chain.pem"), write("leaf.pem", pem(leaf.get()))};
  }
  Arguments ask(const Issued& leaf, const std::string& uri) const {
    return ask(leaf) + Arguments{"--uri", uri};
  }

  std::string line(const std::string& text) const { return own("leaf.pem") + ": " + text + "\n"; }

  // Checks the text and the JSON form; logs are compared in `json` by their texts' begins.
  void expectAnswer(const Arguments& arguments, int status, int code, const std::string& text,
                    const json& uri, const std::vector<json>& log = {}, const Why& why = {}) const {
    const std::string word = code == 0 ? "good" : code == 1 ? "revoked" : "none";
    std::string out =
        (code > 1 ? "no answer" : word) + ", code " + std::to_string(code) + " (" + text + ")";
    if (!uri.is_null()) out += ", from " + uri.get<std::string>();
    std::string err;
    for (const json& one : log) {
      err += line("<" + one.at("priority").dump() + "> " + one.at("text").get<std::string>());
    }

    const CommandResult asJson = tool(arguments + Arguments{"--json"});
    EXPECT_EQ(asJson.status, status);
    EXPECT_EQ(asJson.err, "");
    EXPECT_EQ(keysOf(asJson), std::string("schemaVersion file uri answer outcome ") +
                                  (code == 0 ? "" : "line ") + "findings sources code text log ");
    json objects = parsed(asJson);
    std::string rule;
    std::string advice;
    if (code != 0) {
      rule = objects.at(0).at("findings").at(0).at("rule");
      advice = objects.at(0).at("findings").at(0).at("advice");
    }
    expectFinding(objects.at(0), code, why);
    for (const char* key : {"schemaVersion", "outcome", "line", "findings", "sources"})
      objects.at(0).erase(key);
    for (json& one : objects.at(0).at("log")) {
      one.at("text") = withoutAddresses(one.at("text").get<std::string>());
    }
    EXPECT_EQ(objects, json::array({{{"file", own("leaf.pem")},
                                     {"uri", uri},
                                     {"answer", word},
                                     {"code", code},
                                     {"text", text},
                                     {"log", log}}}));

    const CommandResult asText = tool(arguments);
    EXPECT_EQ(asText.status, status);
    if (code == 0) {
      EXPECT_EQ(asText.out, line(out));
    } else {
      // A connection that is closed may fail in another way each time.
      EXPECT_TRUE(asText.out.starts_with(line(out) + "  " + rule + ": ")) << asText.out;
      EXPECT_NE(asText.out.find(why.text), std::string::npos) << asText.out;
      EXPECT_TRUE(asText.out.ends_with("; " + advice + "\n")) << asText.out;
    }
    EXPECT_EQ(withoutAddresses(asText.err), err);
  }

  static void expectFinding(const json& object, int code, const Why& why) {
    if (code == 0) {
      EXPECT_EQ(object.at("outcome"), "valid");
      EXPECT_EQ(object.at("findings"), json::array());
      return;
    }
    const std::map<int, std::string> rules = {{1, "revoked"},
                                              {2, why.rule},
                                              {101, "ocsp-responder-invalid"},
                                              {117, "ocsp-signature"},
                                              {118, "ocsp-responder-unknown"}};
    const json& finding = object.at("findings").at(0);
    EXPECT_EQ(finding.at("rule"), rules.at(code));
    EXPECT_EQ(object.at("outcome"), code == 1 ? "permanent" : why.outcome);
    const std::string line = object.at("line");
    EXPECT_TRUE(line.starts_with(rules.at(code) + ": ")) << line;
    EXPECT_TRUE(line.ends_with("; " + finding.at("advice").get<std::string>())) << line;
    EXPECT_NE(line.find(why.text), std::string::npos) << line;
  }

  void expectRefused(const Arguments& arguments, const std::string& text) const {
    for (const Arguments& form : {arguments, arguments + Arguments{"--json"}}) {
      const CommandResult result = tool(form);
      EXPECT_EQ(result.status, 2);
      EXPECT_EQ(result.out, "");
      EXPECT_EQ(result.err, "pkx509: " + text + "\n");
    }
  }

  // Lines about a certificate name it by the address of its object.
  static std::string withoutAddresses(std::string text) {
    for (std::size_t at = 0; (at = text.find("Certificate 0x", at)) != std::string::npos;) {
      at += std::string("Certificate ").size();
      text.replace(at, text.find(' ', at) - at, "ADDRESS");
    }
    return text;
  }

  static json logged(int priority, const std::string& text) {
    return {{"priority", priority}, {"text", text}};
  }
  // The lines about a revoked certificate and a refused answer go out without their texts.
  inline static const json kMisplaced = {{"priority", 0}, {"text", ""}};
  static json notReached(const std::string& uri) {
    return logged(6, "OCSP::Client: Could not connect to uri: " + uri);
  }

  static constexpr char kGood[] = "the responder knows of no revocation";
  static constexpr char kRevoked[] = "the certificate is revoked";
  static constexpr char kUnusable[] = "the responder gave no usable answer";
  static constexpr char kNotReached[] = "no responder was reached";

  const Issued root = issueCA("CN=Root");
  const Issued ca = issueCA("CN=CA", &root);
};

TEST_F(ToolOCSP, RealResponder_GoodRevokedAndUnknown) {
  OCSPResponder responder({.ca = &ca});
  const Issued leaf = leafFor({responder.url()});
  expectAnswer(ask(leaf), 2, 2, kUnusable, responder.url(), {}, {.rule = "ocsp-unknown"});
  responder.setIndex({{.serial = leaf}});
  expectAnswer(ask(leaf), 0, 0, kGood, responder.url());
  responder.setIndex({{.serial = leaf, .revoked = true, .reason = CRL_REASON_SUPERSEDED}});
  expectAnswer(ask(leaf), 1, 1, kRevoked, responder.url(), {kMisplaced}, {.text = "superseded"});
  ASSERT_TRUE(responder.waitForRequests(6));
  for (const std::string& request : responder.requests()) EXPECT_EQ(request, "POST // HTTP/1.0");
}

TEST_F(ToolOCSP, ResponderThatIsDown_IsNoAnswer) {
  const ReservedPort port;
  const std::string uri = "http://127.0.0.1:" + port.text() + "/ocsp";
  expectAnswer(ask(leafFor({uri})), 2, 2, kNotReached, nullptr, {notReached(uri)},
               {.text = uri + ": could not connect: Connection refused"});
}

TEST_F(ToolOCSP, RespondersOfTheCertificate_AreTriedUntilOneIsConnectedTo) {
  const ReservedPort port;
  const std::string down = "http://127.0.0.1:" + port.text() + "/";
  const FaultServer unused(Scripts::garbage());
  OCSPResponder responder({.ca = &ca});
  const std::string ldap = "ldap://127.0.0.1/";
  const Issued leaf = leafFor({down, ldap, responder.url(), unused.url()});
  responder.setIndex({{.serial = leaf}});
  expectAnswer(
      ask(leaf), 0, 0, kGood, responder.url(),
      {notReached(down), logged(7, "OCSP::Client: unhandled uri: " + ldap + " scheme = ldap:")});
  EXPECT_TRUE(unused.connections().empty());
}

TEST_F(ToolOCSP, URI_OverridesWhatTheCertificateNames) {
  const FaultServer named(Scripts::garbage());
  OCSPResponder responder({.ca = &ca});
  const Issued leaf = leafFor({named.url()});
  responder.setIndex({{.serial = leaf}});
  expectAnswer(ask(leaf, responder.url("/path?query#x")), 0, 0, kGood,
               responder.url("/path?query#x"));
  EXPECT_TRUE(named.connections().empty());
  ASSERT_TRUE(responder.waitForRequests(1));
  EXPECT_EQ(responder.requests().front(), "POST //path HTTP/1.0");
}

TEST_F(ToolOCSP, ForgedCertificate_RespondersItNamesAreNotConnectedTo) {
  const FaultServer named(Scripts::garbage());
  CertificateOptions options{.subject = "CN=Forged",
                             .issuer = &ca,
                             .extensions = {{"authorityInfoAccess", "OCSP;URI:" + named.url()}}};
  options.badSignature = true;
  const Issued damaged = issue(options);
  options.badSignature = false;
  options.signer = makeKey();
  const Issued otherKey = issue(options);
  for (const Issued& forged : {damaged, otherKey}) {
    expectRefused(ask(forged),
                  own("leaf.pem") + ": no certificate of " + own("chain.pem") +
                      " has signed it, so the responders it names are not asked; --uri names one");
  }
  EXPECT_TRUE(named.connections().empty());

  // Who names the responder is connected to it, whatever the certificate is.
  OCSPResponder responder({.ca = &ca, .index = {{.serial = damaged}}});
  expectAnswer(ask(damaged, responder.url()), 0, 0, kGood, responder.url());
}

TEST_F(ToolOCSP, ChainWithoutTheIssuer_IsExplained) {
  OCSPResponder responder({.ca = &ca});
  const Issued leaf = leafFor({responder.url()});
  responder.setIndex({{.serial = leaf}});
  write("chain.pem", pem(root.get()));
  expectRefused(ask(leaf),
                own("leaf.pem") + ": no certificate of " + own("chain.pem") +
                    " has signed it, so the responders it names are not asked; --uri names one");
  // Without the issuer no question can be made.
  expectAnswer(ask(leaf, responder.url()), 2, 2, kUnusable, responder.url(), {},
               {.rule = "issuer-unknown", .outcome = "permanent"});
  EXPECT_TRUE(responder.requests().empty());
}

TEST_F(ToolOCSP, CertificatesBesideTheFirst_CountAsItsChain) {
  OCSPResponder responder({.ca = &ca});
  const Issued leaf = leafFor({responder.url()});
  responder.setIndex({{.serial = leaf}});
  write("chain.pem", pem(root.get()));
  write("leaf.pem", pem(leaf.get()) + pem(ca.get()));
  expectAnswer({"ocsp", "--chain", own("chain.pem"), own("leaf.pem")}, 0, 0, kGood,
               responder.url());
}

TEST_F(ToolOCSP, CertificateThatNamesNoResponder_IsExplained) {
  const std::string text = own("leaf.pem") + ": it names no OCSP responder; --uri names one";
  expectRefused(ask(leafFor({})), text);
  expectRefused(
      ask(issue({.issuer = &ca,
                 .extensions = {{"authorityInfoAccess",
                                 "caIssuers;URI:http://127.0.0.1/ca,OCSP;DNS:localhost"}}})),
      text);
}

TEST_F(ToolOCSP, BrokenExtension_IsAnErrorThatNamesTheFile) {
  const Issued leaf =
      issue({.issuer = &ca, .rawExtensions = {{.oid = "1.3.6.1.5.5.7.1.1", .der = "\x05"}}});
  const CommandResult result = tool(ask(leaf));
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(result.err.starts_with("pkx509: " + own("leaf.pem") + ": ")) << result.err;
  EXPECT_EQ(linesIn(result.err), 1) << result.err;
}

TEST_F(ToolOCSP, Timeout_BoundsTheQuery) {
  const Issued leaf = leafFor({});
  struct Row {
    const char* name;
    Script script;
  };
  const std::vector<Row> rows = {
      {"silence", Scripts::silence()},
      {"a byte now and then", Scripts::trickle(Scripts::response(std::string(1000, 'x')), 100ms)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    const auto begin = std::chrono::steady_clock::now();
    const CommandResult result = tool(ask(leaf, server.url()) + Arguments{"--timeout", "1"});
    const auto time = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(result.out.starts_with(
        line("no answer, code 2 (" + std::string(kUnusable) + "), from " + server.url())))
        << result.out;
    EXPECT_EQ(withoutAddresses(result.err),
              line("<6> Certificate ADDRESS : No data from OCSP server."));
    EXPECT_GE(time, 950ms);
    EXPECT_LT(time, 2500ms);
  }
}

TEST_F(ToolOCSP, ServersThatMisbehave_GiveNoAnswer) {
  const Issued leaf = leafFor({});
  struct Row {
    const char* name;
    Script script;
    json log;
    Why why = {};
  };
  const json noData = logged(6, "Certificate ADDRESS : No data from OCSP server.");
  // A reset before the request may be noticed while connecting.
  const Script resetAfterRequest = [](Peer& peer) {
    if (peer.readRequest()) peer.reset();
  };
  // OCSPResponse { tryLater }.
  const std::string tryLater("\x30\x03\x0a\x01\x03");
  const std::vector<Row> rows = {
      {"closed", Scripts::closeAtOnce(), noData},
      {"reset", resetAfterRequest, noData},
      {"not found", Scripts::notFound(), noData, {.text = "HTTP status 404: Not Found"}},
      {"redirect", Scripts::redirect("http://127.0.0.1/"), noData},
      {"no HTTP", Scripts::garbage(), noData},
      {"cut short", Scripts::cutShort("0", 100), noData},
      {"4 GiB promised", Scripts::hugePromise(), noData},
      {"endless", Scripts::endlessBody(), noData},
      {"HTML", Scripts::html(), kMisplaced, {.rule = "ocsp-malformed", .text = "Decode failed"}},
      {"try later",
       Scripts::answer(tryLater),
       logged(6, "Certificate ADDRESS : Invalid response from OCSP server."),
       {.rule = "ocsp-not-successful", .text = "trylater"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    expectAnswer(ask(leaf, server.url()) + Arguments{"--timeout", "5"}, 2, 2, kUnusable,
                 server.url(), {row.log}, row.why);
  }
}

TEST_F(ToolOCSP, DelegatedResponder_HasToBeValidAgainstTheTrustedCertificates) {
  const Issued leaf = leafFor({});
  const Issued signer = issue(
      {.subject = "CN=Signer", .issuer = &ca, .extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  const Issued stranger = issueCA("CN=Stranger");
  OCSPResponder delegated({.ca = &ca, .signer = &signer, .index = {{.serial = leaf}}});
  OCSPResponder strange({.ca = &ca, .signer = &stranger, .index = {{.serial = leaf}}});
  const Arguments trusted = {"--ca-dir", own("trusted")};
  const std::string text = "the responder's certificate is not valid";

  expectAnswer(ask(leaf, delegated.url()) + trusted, 0, 0, kGood, delegated.url());
  for (const bool fixed : {false, true}) {
    const OCSPResponder& responder = fixed ? strange : delegated;
    const CommandResult refused =
        tool(ask(leaf, responder.url()) + (fixed ? trusted : Arguments{}));
    EXPECT_EQ(refused.status, 2);
    EXPECT_TRUE(refused.out.starts_with(
        line("no answer, code 101 (" + text + "), from " + responder.url())))
        << refused.out;
    EXPECT_NE(
        refused.err.find(line("<6> OCSP::Client: Could not validate Responder's certificate.")),
        std::string::npos)
        << refused.err;
  }
  // Without --ca-dir the fixed directory serves.
  addToDirectory(kCADirectory, root.get());
  expectAnswer(ask(leaf, delegated.url()), 0, 0, kGood, delegated.url());
}

TEST_F(ToolOCSP, AnswerOfNobodyKnownOrWithAWrongSignature_IsNone) {
  const Issued leaf = leafFor({});
  const Issued signer = issue(
      {.subject = "CN=Signer", .issuer = &ca, .extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  OCSPResponder tampered({.ca = &ca, .index = {{.serial = leaf}}, .badSignature = true});
  expectAnswer(ask(leaf, tampered.url()), 2, 117, "the signature of the answer is wrong",
               tampered.url(), {logged(6, "OCSP::Client: Response Signature check failed.")});
  OCSPResponder anonymous(
      {.ca = &ca, .signer = &signer, .index = {{.serial = leaf}}, .certificates = false});
  expectAnswer(ask(leaf, anonymous.url()), 2, 118, "the responder's certificate is not known",
               anonymous.url());
  // It is known when it is in the chain.
  write("chain.pem", pem(ca.get()) + pem(signer.get()));
  expectAnswer(ask(leaf, anonymous.url()), 0, 0, kGood, anonymous.url());
}

TEST_F(ToolOCSP, HTTPS_NeedsTheClientCertificate_AndShowsIt) {
  const Issued name = issue({.subject = "CN=Server", .issuer = &root});
  const Issued client = issue({.subject = "CN=Appliance", .issuer = &root});
  const Issued leaf = leafFor({});
  OCSPResponder responder({.ca = &ca, .index = {{.serial = leaf}}});
  const FaultServer secure(
      [&](Peer& peer) {
        if (const auto request = peer.readRequest()) {
          peer.write(exchangeBytes(portOf(responder.url()), *request));
        }
      },
      {.certificate = &name, .clientCA = &root});
  const std::string apps = std::string(kAppsDirectory) + "/server.";
  const auto refused = [&](const std::string& file) {
    const CommandResult result = tool(ask(leaf, secure.url()));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("pkx509: " + own("leaf.pem") + ": " + file + ": "))
        << result.err;
    EXPECT_EQ(linesIn(result.err), 1) << result.err;
  };
  refused(apps + "crt");
  writeFile(apps + "crt", pem(client.get()));
  refused(apps + "key");
  EXPECT_TRUE(secure.connections().empty());

  writeFile(apps + "key", pem(client.key.get()));
  expectAnswer(ask(leaf, secure.url()), 0, 0, kGood, secure.url());
  EXPECT_EQ(secure.connections().front().clientSubject, "CN=Appliance");
}

TEST_F(ToolOCSP, StandardInput_ServesForOneOfTheTwoFiles) {
  OCSPResponder responder({.ca = &ca});
  const Issued leaf = leafFor({responder.url()});
  responder.setIndex({{.serial = leaf}});
  write("leaf.pem", pem(leaf.get()));
  const CommandResult chain = tool({"ocsp", "--chain", "-", own("leaf.pem")}, pem(ca.get()));
  EXPECT_EQ(chain.status, 0) << chain.err;
  const CommandResult cert = tool({"ocsp", "-", "--chain", own("chain.pem")}, der(leaf.get()));
  EXPECT_EQ(cert.status, 0) << cert.err;
  EXPECT_EQ(cert.out,
            "-: good, code 0 (" + std::string(kGood) + "), from " + responder.url() + "\n");
  const CommandResult both = tool({"ocsp", "-", "--chain", "-"}, pem(leaf.get()) + pem(ca.get()));
  EXPECT_EQ(both.status, 2);
  EXPECT_EQ(both.out, "");
  EXPECT_EQ(both.err, "pkx509: standard input (\"-\") can be read only once\n");
}

TEST_F(ToolOCSP, WrongUsage_IsExplained) {
  const FaultServer server(Scripts::garbage());
  const Issued leaf = leafFor({server.url()});
  const Arguments asking = ask(leaf);
  const std::string empty = own("empty");
  fs::create_directory(empty);
  struct Row {
    Arguments arguments;
    std::string text;
  };
  const std::vector<Row> rows = {
      {asking + Arguments{"--uri", "nowhere"}, "--uri: \"nowhere\" is no URI"},
      {asking + Arguments{"--uri", ""}, "--uri: \"\" is no URI"},
      {asking + Arguments{"--uri="}, "--uri=: the value is missing"},
      {asking + Arguments{"--ca-dir", own("nothing")},
       "--ca-dir: " + own("nothing") + ": No such file or directory"},
      {asking + Arguments{"--ca-dir", empty},
       "--ca-dir: " + empty +
           ": no file in it is named by a hash; \"openssl rehash\" makes such names"},
      {{"ocsp", "--chain", own("chain.pem"), own("nothing")},
       own("nothing") + ": No such file or directory"},
      {{"ocsp", "--chain", own("nothing"), own("leaf.pem")},
       own("nothing") + ": No such file or directory"},
      {{"ocsp", "--chain", write("text", "no certificate"), own("leaf.pem")},
       own("text") + ": neither PEM nor DER"},
      {asking + Arguments{"other"}, "unknown argument: other; --help shows the usage"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    expectRefused(row.arguments, row.text);
  }
  // The wording of these is the command-line parser's.
  for (const Arguments& arguments : {Arguments{"ocsp"},
                                     {"ocsp", own("leaf.pem")},
                                     {"ocsp", "--chain", own("chain.pem")},
                                     asking + Arguments{"--timeout", "0"},
                                     asking + Arguments{"--timeout", "3601"},
                                     asking + Arguments{"--timeout", "-1"},
                                     asking + Arguments{"--timeout", "soon"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const CommandResult result = tool(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(linesIn(result.err), 1) << result.err;
  }
  EXPECT_TRUE(server.connections().empty());
}

TEST_F(ToolOCSP, Help_NamesEverything) {
  const CommandResult help = tool({"ocsp", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  for (const char* text : {"CERT", "--chain", "--uri", "--ca-dir", "--timeout", "--json", "--help",
                           kCADirectory, "file, uri", "answer", "code", "text", "log", "101", "117",
                           "118", "Exit status", "Examples"}) {
    EXPECT_NE(help.out.find(text), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace Velantrix::Test
