// The client against responders that do what the openssl command cannot be told to do.
#include "integration/ConnectWatch.h"
#include "integration/OCSPFixture.h"
#include "support/Loopback.h"
#include "support/Memory.h"
#include "support/Stopwatch.h"

#include <pkx509/FixedPaths.h>

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <chrono>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

class OCSPFaults : public OCSPIntegration {
 protected:
  const Issued leaf = person({"http://unused.test/"});
};

TEST_F(OCSPFaults, Request_IsExactlyTheseBytes) {
  const FaultServer server(answering({.signer = &root}));
  const std::string base = server.url("");
  struct Row {
    std::string path;
    const char* line;
  };
  const Row rows[] = {
      {"", "POST // HTTP/1.0"},
      {"/", "POST // HTTP/1.0"},
      {"/ocsp/a", "POST //ocsp/a HTTP/1.0"},
      {"//ocsp", "POST ///ocsp HTTP/1.0"},
      {"/%61%20b?query#fragment", "POST //%61%20b HTTP/1.0"},
  };
  const std::string about = ocspRequest(leaf, root, false).substr(4);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    Asking asking(world, {leaf, root});
    EXPECT_EQ(asking.ask(base + row.path), 0);
    const std::vector<std::string> requests = server.requests();
    ASSERT_FALSE(requests.empty());
    const std::string& request = requests.back();
    const std::string body = httpBody(request);
    EXPECT_EQ(request, row.line +
                           "\r\nContent-Type: application/ocsp-request\r\nContent-Length: "s +
                           std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_NE(body.find(about), std::string::npos);
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(OCSPFaults, WrongAnswers_AreNoAnswer) {
  const std::string whole =
      ocspAnswer({.signer = &root, .nonce = OCSPNonce::Absent}, ocspRequest(leaf, root));
  constexpr std::size_t kMost = std::size_t{1024} * 1024;
  const std::string noData = noDataLine(leaf);
  const std::string invalid = invalidLine(leaf);
  const auto status = [](int number) {
    return Scripts::answer(ocspAnswer({.status = number}, ""));
  };
  struct Row {
    const char* name;
    Script script;
    int answer;
    std::string lines;
  };
  const Row rows[] = {
      {"right", Scripts::answer(whole), 0, ""},
      {"right until close", Scripts::raw("HTTP/1.0 200 OK\r\n\r\n" + whole), 0, ""},
      {"right and 1 MiB long", Scripts::answer(whole + std::string(kMost - whole.size(), 'x')), 0,
       ""},
      {"closed at once", Scripts::closeAtOnce(), 2, noData},
      {"reset after the request",
       [](Peer& peer) {
         if (peer.readRequest()) peer.reset();
       },
       2, noData},
      {"closed after the request", Scripts::raw(""), 2, noData},
      {"cut short", Scripts::cutShort(whole, whole.size() + 1), 2, noData},
      {"garbage for a header", Scripts::garbage(), 2, noData},
      {"not found", Scripts::notFound(), 2, noData},
      {"redirect", Scripts::redirect("http://127.0.0.1:1/"), 2, noData},
      {"error with an answer", Scripts::answer(whole, "500 Error"), 2, noData},
      {"above 1 MiB", Scripts::answer(whole + std::string(kMost - whole.size() + 1, 'x')), 2,
       noData},
      {"2 MiB", Scripts::answer(std::string(2 * kMost, 'x')), 2, noData},
      {"4 GiB promised", Scripts::hugePromise(), 2, noData},
      {"endless", Scripts::endlessBody(), 2, noData},
      {"endless chunks", Scripts::endlessChunks(), 2, noData},
      {"endless headers", Scripts::endlessHeaders(), 2, noData},
      {"one endless header", Scripts::endlessHeaderLine(), 2, noData},
      {"HTML", Scripts::html(), 2, kMisplaced},
      {"truncated", Scripts::answer(whole.substr(0, whole.size() - 1)), 2, kMisplaced},
      {"garbage for a body", Scripts::answer("\xff\xfe\0garbage"s), 2, kMisplaced},
      {"a certificate", Scripts::answer(der(leaf.get())), 2, kMisplaced},
      {"no body", Scripts::answer(""), 2, ""},
      {"no basic response", Scripts::answer(ocspResponseOf("garbage")), 2, ""},
      {"malformed request", status(OCSP_RESPONSE_STATUS_MALFORMEDREQUEST), 2, invalid},
      {"internal error", status(OCSP_RESPONSE_STATUS_INTERNALERROR), 2, invalid},
      {"try later", status(OCSP_RESPONSE_STATUS_TRYLATER), 2, invalid},
      {"signature required", status(OCSP_RESPONSE_STATUS_SIGREQUIRED), 2, invalid},
      {"unauthorized", status(OCSP_RESPONSE_STATUS_UNAUTHORIZED), 2, invalid},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    log.clear();
    const MemoryPeak memory;
    const Stopwatch watch;
    Asking asking(world, {leaf, root});
    EXPECT_EQ(asking.ask(server.url()), row.answer);
    EXPECT_LT(watch.elapsed(), 5s);
    EXPECT_LT(memory.resident(), std::size_t{48} * 1024 * 1024);  // most of it the server's own
    EXPECT_EQ(log.text(), row.lines);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(server.connections().size(), 1U);
  }
}

TEST_F(OCSPFaults, ResetAtOnce_IsNoConnectionOrNoData) {
  const FaultServer server(Scripts::resetAtOnce());
  Asking asking(world, {leaf, root});
  // The reset can come before the client has looked at what became of its connection.
  const bool connected = asking.client.connect(Uri(server.url()));
  EXPECT_EQ(log.text(), connected ? "" : unreachableLine(server.url()));
  log.clear();
  EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 2);
  EXPECT_EQ(log.text(), connected ? noDataLine(leaf) : kMisplaced);
}

TEST_F(OCSPFaults, SlowAnswers_EndAtTheQueryTime) {
  const std::string whole =
      ocspAnswer({.signer = &root, .nonce = OCSPNonce::Absent}, ocspRequest(leaf, root));
  for (const Script& script :
       {Scripts::silence(), Scripts::trickle(Scripts::response(whole), 100ms)}) {
    const FaultServer server(script);
    log.clear();
    Asking asking(world, {leaf, root});
    asking.client.maxQueryTime(1);
    const Stopwatch watch;
    EXPECT_EQ(asking.ask(server.url()), 2);
    EXPECT_TRUE(watch.took(1s));
    EXPECT_EQ(log.text(), noDataLine(leaf));
    EXPECT_TRUE(server.waitForEnds(1));
  }
}

struct AnswerRow {
  const char* name;
  OCSPAnswer description;
  int answer;
  std::string lines = {};
};

TEST_F(OCSPFaults, Answers_AreJudged) {
  const Issued other = person({"http://unused.test/"});
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const std::string mismatch =
      "7 OCSP::BasicResponse: Request Nonce and Reply Nonce do not match.\n"
      "7 OCSP::Client. OCSP Response does not match the request\n";
  const AnswerRow rows[] = {
      {"good", {.signer = &root}, 0},
      {"good without a nonce", {.signer = &root, .nonce = OCSPNonce::Absent}, 0},
      {"another nonce", {.signer = &root, .nonce = OCSPNonce::Other}, 2, mismatch},
      {"another nonce of a stranger",
       {.signer = &stranger, .nonce = OCSPNonce::Other},
       2,
       mismatch},
      {"revoked",
       {.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = 1}}},
       1,
       kMisplaced},
      {"revoked with a reason that has no name",
       {.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = 99}}},
       1,
       kMisplaced},
      {"unknown", {.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}}, 2},
      // Meant so: who says nothing against the certificate has not revoked it.
      {"nothing", {.signer = &root, .singles = {}}, 0},
      {"another certificate's",
       {.signer = &root,
        .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .certificate = &other, .issuer = &root}}},
       0},
      // Meant so: the times are not compared with the clock.
      {"long outdated",
       {.signer = &root,
        .singles = {{.thisUpdate = "20100101000000Z", .nextUpdate = "20100102000000Z"}}},
       0},
      {"of the future", {.signer = &root, .singles = {{.thisUpdate = 24h, .nextUpdate = 48h}}}, 0},
      {"outdated and revoked",
       {.signer = &root,
        .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED,
                     .thisUpdate = "20100101000000Z",
                     .nextUpdate = "20100102000000Z"}}},
       1,
       kMisplaced},
      {"tampered",
       {.signer = &root, .tampered = true},
       117,
       "6 OCSP::Client: Response Signature check failed.\n"},
      {"a stranger's, not sent", {.signer = &stranger, .certificates = false}, 118},
  };
  for (const AnswerRow& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(answering(row.description));
    log.clear();
    Asking asking(world, {leaf, root});
    EXPECT_EQ(asking.ask(server.url()), row.answer);
    EXPECT_EQ(log.text(), row.lines);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

// --- Two certificates of the chain may have issued the one that is asked about.

TEST_F(OCSPFaults, TwoIssuers_TheSecondIsAskedAfterNoDataOnly) {
  const Issued ca = issueCA("O=Test,CN=Cross", &root);
  const Issued twin = issueCA("O=Test,CN=Cross");
  const Issued cross =
      issue({.subject = "O=Test,CN=Cross", .issuer = &twin, .ca = true, .key = ca.key});
  // Without a key identifier, so that every certificate of the name may have issued it.
  const Issued below =
      issue({.subject = "O=Test,CN=Below", .issuer = &ca, .authorityKeyId = KeyId::Absent});
  const OCSPAnswer revoked{.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED}}};
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  struct Row {
    const char* name;
    Script first;
    int answer;
    std::size_t requests;
    std::string lines;
  };
  const std::string signature = "6 OCSP::Client: Response Signature check failed.\n";
  const Row rows[] = {
      {"no data", Scripts::raw(""), 1, 2, noDataLine(below) + kMisplaced},
      {"not found", Scripts::notFound(), 1, 2, noDataLine(below) + kMisplaced},
      {"try later", answering({.status = OCSP_RESPONSE_STATUS_TRYLATER}), 1, 2,
       invalidLine(below) + kMisplaced},
      {"another nonce", answering({.signer = &ca, .nonce = OCSPNonce::Other}), 2, 1,
       "7 OCSP::BasicResponse: Request Nonce and Reply Nonce do not match.\n"
       "7 OCSP::Client. OCSP Response does not match the request\n"},
      {"garbage", Scripts::answer("garbage"), 2, 1, kMisplaced},
      {"no body", Scripts::answer(""), 2, 1, ""},
      {"unknown", answering({.signer = &ca, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}}), 2,
       1, ""},
      {"good", answering({.signer = &ca}), 0, 1, ""},
      {"not sent", answering({.signer = &stranger, .certificates = false}), 118, 1, ""},
      {"wrongly signed", answering({.signer = &ca, .badSignature = true}), 117, 1, signature},
  };
  for (const Row& row : rows) {
    // The other certificate of the same name has the same key or another one.
    for (const Issued* const other : {&twin, &cross}) {
      SCOPED_TRACE(row.name);
      const FaultServer server(Scripts::inTurn({row.first, answering(revoked)}));
      log.clear();
      Asking asking(world, {below, ca, *other});
      EXPECT_EQ(asking.ask(server.url()), row.answer);
      EXPECT_EQ(log.text(), row.lines);
      const std::vector<std::string> requests = server.requests();
      ASSERT_EQ(requests.size(), row.requests);
      EXPECT_NE(requests[0].find(ocspRequest(below, ca, false).substr(4)), std::string::npos);
      if (row.requests == 1) continue;
      EXPECT_NE(requests[1].find(ocspRequest(below, *other, false).substr(4)), std::string::npos);
      EXPECT_NE(requests[0], requests[1]);  // also where the certificates have the same key
    }
  }
}

TEST_F(OCSPFaults, BothWithoutAVerdict_IsNoAnswer) {
  const Issued twin = issueCA("O=Test,CN=Root");
  const Issued below =
      issue({.subject = "O=Test,CN=Below", .issuer = &root, .authorityKeyId = KeyId::Absent});
  const FaultServer server(Scripts::notFound());
  Asking asking(world, {below, root, twin});
  EXPECT_EQ(asking.ask(server.url()), 2);
  EXPECT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(log.text(), noDataLine(below) + noDataLine(below));
}

TEST_F(OCSPFaults, NameOfTheIssuerWithAnotherKeyIdentifier_IsNotTheIssuer) {
  const Issued twin = issueCA("O=Test,CN=Root");
  const FaultServer server(Scripts::notFound());
  Asking asking(world, {leaf, twin, root});
  EXPECT_EQ(asking.ask(server.url()), 2);
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_NE(server.requests()[0].find(ocspRequest(leaf, root, false).substr(4)), std::string::npos);
}

TEST_F(OCSPFaults, NoIssuerInTheChain_ConnectsAndAsksNothing) {
  const FaultServer server(answering({.signer = &root}));
  {
    Asking asking(world, {leaf});
    EXPECT_EQ(asking.ask(server.url()), 2);
  }
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().size(), 1U);
  EXPECT_EQ(server.connections().at(0).received, "");
  EXPECT_EQ(log.text(), "");
}

// --- The report.

using Crypto::PKX509::Outcome;
using Crypto::PKX509::Rule;
using Report = Crypto::PKX509::VerificationReport;

std::string textIn(const Report::Finding& finding, std::string_view name) {
  const Report::Value* const value = finding.find(name);
  const auto* const text = value == nullptr ? nullptr : std::get_if<std::string>(value);
  return text == nullptr ? "" : *text;
}

TEST_F(OCSPFaults, Report_SaysWhyThereIsNoAnswer) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const Script tryLater =
      Scripts::answer(ocspAnswer({.status = OCSP_RESPONSE_STATUS_TRYLATER}, ""));
  struct Row {
    const char* name;
    Script script;
    int answer;
    Rule rule;
    const char* text;  // that the line has, too
  };
  const Row rows[] = {
      {"not found", Scripts::notFound(), 2, Rule::kOCSPUnreachable, "HTTP status 404"},
      {"try later", tryLater, 2, Rule::kOCSPNotSuccessful, "trylater"},
      {"HTML", Scripts::html(), 2, Rule::kOCSPMalformed, "Decode failed"},
      {"garbage inside", Scripts::answer(ocspResponseOf("garbage")), 2, Rule::kOCSPMalformed,
       "there is no basic response in it"},
      {"another nonce", answering({.signer = &root, .nonce = OCSPNonce::Other}), 2,
       Rule::kOCSPNonce, ""},
      {"unknown", answering({.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}}),
       2, Rule::kOCSPUnknown, ""},
      {"tampered", answering({.signer = &root, .tampered = true}), 117, Rule::kOCSPSignature, ""},
      {"a stranger's", answering({.signer = &stranger}), 101, Rule::kOCSPResponderInvalid,
       "CN=Stranger"},
      {"a stranger's, not sent", answering({.signer = &stranger, .certificates = false}), 118,
       Rule::kOCSPResponderUnknown, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    Asking asking(world, {leaf, root});
    EXPECT_FALSE(asking.client.report().valid());
    EXPECT_EQ(asking.client.report().findings().at(0).rule(), Rule::kNotVerified);
    EXPECT_EQ(asking.ask(server.url()), row.answer);
    const Report report = asking.client.report();
    EXPECT_EQ(report.code(), kNoCRL);
    EXPECT_EQ(report.outcome(), factsOf(row.rule).outcome);
    const Report::Finding& finding = report.findings().at(0);
    EXPECT_EQ(finding.rule(), row.rule);
    EXPECT_EQ(finding.certificate().subject(), "CN=Person,O=Test");
    EXPECT_EQ(finding.depth(), 0);
    EXPECT_EQ(textIn(finding, "uri"), server.url());
    EXPECT_NE(report.line().find(row.text), std::string::npos) << report.line();
    EXPECT_EQ(report.sources().at(0).kind(), Report::Source::Kind::kOCSPResponder);
    if (row.rule == Rule::kOCSPResponderInvalid) {
      ASSERT_FALSE(finding.nested().empty());
      EXPECT_EQ(finding.nested().at(0).rule(), Rule::kSelfSigned);
    }
  }
}

TEST_F(OCSPFaults, Report_SaysWhoSaidGoodOrRevoked) {
  for (const bool revoked : {false, true}) {
    OCSPAnswer answer{.signer = &root};
    if (revoked) answer.singles = {{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = 1}};
    const FaultServer server(answering(answer));
    Asking asking(world, {leaf, root});
    EXPECT_EQ(asking.ask(server.url()), revoked ? 1 : 0);
    const Report report = asking.client.report();
    EXPECT_EQ(report.code(), revoked ? kRevoked : X509_V_OK);
    const Report::RevocationResult& result = report.path().at(0).revocation();
    using Status = Report::RevocationResult::Status;
    EXPECT_EQ(result.status(), revoked ? Status::kRevoked : Status::kGood);
    ASSERT_EQ(result.decidedBy().size(), 1U);
    EXPECT_EQ(result.decidedBy().at(0).issuer, "CN=Root,O=Test");
    EXPECT_EQ(result.decidedBy().at(0).origin.place(), server.url());
    EXPECT_TRUE(result.decidedBy().at(0).thisUpdate.has_value());
    if (!revoked) {
      EXPECT_TRUE(report.findings().empty());
      continue;
    }
    EXPECT_EQ(report.outcome(), Outcome::kPermanent);
    EXPECT_EQ(report.findings().at(0).rule(), Rule::kRevoked);
    EXPECT_EQ(textIn(report.findings().at(0), "reason"), "keyCompromise");
  }
}

TEST_F(OCSPFaults, Report_WithoutAConnectionOrAnIssuer) {
  const ReservedPort port;
  const std::string url = "http://127.0.0.1:" + port.text() + "/";
  Asking asking(world, {leaf, root});
  EXPECT_EQ(asking.ask(url), -1);
  for (int i = 0; i < 2; ++i) {
    const Report report = asking.client.report();
    EXPECT_EQ(report.outcome(), Outcome::kTemporary);
    ASSERT_EQ(report.findings().size(), 1U);
    const Report::Finding& finding = report.findings().front();
    EXPECT_EQ(finding.rule(), Rule::kOCSPUnreachable);
    EXPECT_EQ(textIn(finding, "uri"), url);
    EXPECT_EQ(textIn(finding, "error"), "could not connect: Connection refused");
    // What cannot be asked says no more.
    EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 2);
  }
  EXPECT_FALSE(asking.client.connect(Uri("ldap://ldap.test/")));
  EXPECT_EQ(asking.client.report().findings().at(0).rule(), Rule::kSchemeNotSpoken);

  const FaultServer server(answering({.signer = &root}));
  Asking alone(world, {leaf});
  EXPECT_EQ(alone.ask(server.url()), 2);
  EXPECT_EQ(alone.client.report().findings().at(0).rule(), Rule::kIssuerUnknown);
}

// A responder's certificate is verified as it always was, and so is what is logged of it.
TEST_F(OCSPFaults, Report_LeavesTheLineOfTheRespondersVerification) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  const FaultServer server(answering({.signer = &stranger}));
  Asking asking(world, {leaf, root});
  Verifier::logReportLine(true);
  EXPECT_EQ(asking.ask(server.url()), 101);
  Verifier::logReportLine(false);
  EXPECT_NE(log.text().find("5 self-signed: "), std::string::npos) << log.text();
}

// --- Connecting.

TEST_F(OCSPFaults, ConnectFailed_IsALineAndThenNoAnswerWithALineWithoutText) {
  const ReservedPort port;
  const std::string url = "http://127.0.0.1:" + port.text() + "/";
  Asking asking(world, {leaf, root});
  EXPECT_FALSE(asking.client.connect(Uri(url)));
  EXPECT_EQ(log.text(), unreachableLine(url));
  log.clear();
  EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 2);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines().at(0).format, "%d\x01%s");
  EXPECT_EQ(log.lines().at(0).raw, "0\x01");
}

TEST_F(OCSPFaults, SameURI_KeepsTheConnectionAndItsFailureToo) {
  const FaultServer server(answering({.signer = &root}));
  const std::string host = "127.0.0.1:" + std::to_string(server.port());
  const ConnectWatch watch;
  Asking asking(world, {leaf, root});
  EXPECT_TRUE(asking.client.connect(Uri("http://" + host + "/a")));
  EXPECT_TRUE(asking.client.connect(Uri("HTTP://" + host + "/%61")));  // the same in normal form
  EXPECT_EQ(watch.ports().size(), 1U);
  EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 0);
  EXPECT_EQ(server.requests().at(0).substr(0, 9), "POST //a ");

  const ReservedPort port;
  const Uri refused("http://127.0.0.1:" + port.text());
  Asking again(world, {leaf, root});
  EXPECT_FALSE(again.client.connect(refused));
  EXPECT_EQ(watch.ports().size(), 2U);
  EXPECT_FALSE(again.client.connect(refused));
  EXPECT_EQ(watch.ports().size(), 2U);
  EXPECT_EQ(log.text(), unreachableLine(refused.asString()) + unreachableLine(refused.asString()));
}

TEST_F(OCSPFaults, AnotherURI_DropsTheConnection) {
  const FaultServer first(answering({.signer = &root}));
  const FaultServer second(
      answering({.signer = &root, .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED}}}));
  Asking asking(world, {leaf, root});
  EXPECT_TRUE(asking.client.connect(Uri(first.url())));
  EXPECT_TRUE(asking.client.connect(Uri(second.url())));
  EXPECT_TRUE(first.waitForEnds(1));
  EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 1);
  EXPECT_TRUE(first.requests().empty());
  // The same host and another path are another URI.
  EXPECT_EQ(asking.ask(second.url("/other")), 1);
  EXPECT_EQ(second.requests().at(1).substr(0, 13), "POST //other ");
}

TEST_F(OCSPFaults, AnotherURIThatIsRefused_LeavesNoConnection) {
  const FaultServer server(answering({.signer = &root}));
  Asking asking(world, {leaf, root});
  EXPECT_TRUE(asking.client.connect(Uri(server.url())));
  EXPECT_FALSE(asking.client.connect(Uri("ldap://ldap.test/cn=ocsp")));
  EXPECT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 2);
  EXPECT_EQ(
      log.text(),
      "7 OCSP::Client: unhandled uri: ldap://ldap.test/cn=ocsp scheme = ldap:\n"s + kMisplaced);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(OCSPFaults, SeveralQuestions_EachHasItsOwnNonce) {
  const FaultServer server(answering({.signer = &root}));
  Asking asking(world, {leaf, root});
  ASSERT_TRUE(asking.client.connect(Uri(server.url())));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 0);
  const std::vector<std::string> requests = server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_NE(requests[0], requests[1]);
  EXPECT_NE(requests[1], requests[2]);
  EXPECT_NE(requests[0], requests[2]);
}

// --- TLS.

class OCSPTls : public OCSPFaults {
 protected:
  /// The machine's certificate and key.
  void install(const Issued& issued) const {
    writeFile(kClientCertificateFile, pem(issued.get()));
    writeFile(kClientKeyFile, pem(issued.key.get()));
  }

  const Issued host = issueCA("CN=127.0.0.1");  // trusted by nobody
  const Issued machine = issue({.subject = "O=Test,CN=Appliance", .issuer = &root});
};

TEST_F(OCSPTls, ClientCertificate_IsShownAndTheServersIsNotVerified) {
  const FaultServer server(answering({.signer = &root}), {.certificate = &host, .clientCA = &root});
  install(machine);
  const Issued named = person({server.url("/ocsp")});
  EXPECT_EQ(verdict(named), 0) << log.text();
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(server.connections().at(0).clientSubject, "CN=Appliance,O=Test");
  EXPECT_EQ(server.requests().at(0).substr(0, 12), "POST //ocsp ");
}

TEST_F(OCSPTls, ClientCertificateThatTheServerDoesNotTake_IsNoConnectionOrNoData) {
  const FaultServer server(answering({.signer = &root}), {.certificate = &host, .clientCA = &root});
  install(host);
  Asking asking(world, {leaf, root});
  // In TLS 1.3 the client hears of it only when it reads.
  EXPECT_NE(asking.ask(server.url()), 0);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(OCSPTls, ServerSpeaksNoTls_IsNoConnection) {
  install(machine);
  const FaultServer server([](Peer& peer) {
    peer.write("HTTP/1.0 400 Bad Request\r\n\r\n");
    peer.waitForPeerToClose();
  });
  const std::string url = "https://127.0.0.1:" + std::to_string(server.port());
  Asking asking(world, {leaf, root});
  EXPECT_FALSE(asking.client.connect(Uri(url)));
  EXPECT_EQ(log.text(), unreachableLine(url));
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(OCSPTls, URIWithoutAPort_IsPort80) {
  const FaultServer server(answering({.signer = &root}), {.certificate = &host});
  install(machine);
  ConnectWatch watch;
  watch.redirect(80, server.port());
  const Issued named = person({"https://127.0.0.1/ocsp"});
  EXPECT_EQ(verdict(named), 0) << log.text();
  EXPECT_EQ(watch.ports(), std::vector<std::uint16_t>{80});
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(OCSPTls, FilesThatCannotBeLoaded_AreASystemErrorThatLeavesTheVerification) {
  const FaultServer server(answering({.signer = &root}), {.certificate = &host});
  const Issued named = person({server.url()});
  const std::string certificate = pem(machine.get());
  const std::string key = pem(machine.key.get());
  struct Row {
    const char* name;
    std::string certificate;
    std::string key;
  };
  const auto encrypted = [](EVP_PKEY* one) {
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    EXPECT_EQ(PEM_write_bio_PKCS8PrivateKey(bio.get(), one, EVP_aes_128_cbc(), "secret", 6, nullptr,
                                            nullptr),
              1);
    const char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
  };
  const Row rows[] = {
      {"neither", "", ""},
      {"no key", certificate, ""},
      {"no certificate", "", key},
      {"no certificate in the file", "garbage", key},
      {"no key in the file", certificate, "garbage"},
      {"another's key", certificate, pem(host.key.get())},
      {"an encrypted key", certificate, encrypted(machine.key.get())},
  };
  const auto isInvalidArgument = [](const boost::system::system_error& e) {
    return e.code() == boost::system::error_code(boost::asio::error::invalid_argument);
  };
  const ConnectWatch watch;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    clearPrivateView();
    if (!row.certificate.empty()) writeFile(kClientCertificateFile, row.certificate);
    if (!row.key.empty()) writeFile(kClientKeyFile, row.key);
    log.clear();

    Asking asking(world, {named, root});
    try {
      asking.client.connect(Uri(server.url()));
      ADD_FAILURE() << "connect";
    } catch (const boost::system::system_error& e) {
      EXPECT_TRUE(isInvalidArgument(e)) << e.what();
    }
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(asking.client.isRevoked(asking.chain.front()), 2);

    Verifier verifier(world.store, handle(named), false);
    try {
      verifier.isValid();
      ADD_FAILURE() << "isValid";
    } catch (const boost::system::system_error& e) {
      EXPECT_TRUE(isInvalidArgument(e)) << e.what();
    }
    bool caught = false;
    try {
      verifier.isValid();
    } catch (const std::exception& e) {
      caught =
          std::string(e.what()).find("/opsadmin/etc/cert/server/apps/server.") != std::string::npos;
    }
    EXPECT_TRUE(caught);
    EXPECT_TRUE(watch.ports().empty());
  }
  // The same verifier goes on when the files are there.
  Verifier verifier(world.store, handle(named), false);
  EXPECT_THROW(verifier.isValid(), boost::system::system_error);
  install(machine);
  EXPECT_EQ(verifier.isValid(), 0) << log.text();
}

}  // namespace
}  // namespace Velantrix::Test
