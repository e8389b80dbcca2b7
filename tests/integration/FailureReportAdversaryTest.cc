// Who may send anything at all wants to be asked to come back later, to blame this machine, to hide that
// a certificate will never do, or to write into logs and terminals.
#include "integration/FailureReport.h"
#include "support/Loopback.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/LDAPLookup.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr int kNoCRLFound = X509_V_ERR_UNABLE_TO_GET_CRL;
const ReportOrigin kFromCaller{ReportOrigin::Kind::kCaller, {}};
const ReportOrigin kFromMessage{ReportOrigin::Kind::kMessage, {}};

class FailureReportAdversary : public FailureReport {
 protected:
  std::string dead(const std::string& path = "/ca.crl") const {
    return "http://127.0.0.1:" + port_.text() + path;
  }
  /// Names hosts that do not answer, of every kind.
  CertificateOptions namingDeadHosts(CertificateOptions options = {}) const {
    options.crlDistributionPoints.push_back({.fullNames = {"URI:" + dead()}});
    options.crlDistributionPoints.push_back(
        {.fullNames = {"URI:ldap://127.0.0.1:" + port_.text() + "/cn=A"}});
    options.extensions.push_back({"authorityInfoAccess", "OCSP;URI:" + dead("/ocsp")});
    return options;
  }
  Failure permanent(const std::string& name, const Issued& leaf, const std::list<Issued>& untrusted,
                    Rule rule, int code) const {
    Failure failure{.name = name, .leaf = leaf, .untrusted = untrusted};
    failure.told = {.rule = rule,
                    .outcome = Outcome::kPermanent,
                    .code = code,
                    .about = leaf,
                    .origin = kFromCaller};
    return failure;
  }
  void attachDeadDirectory(Failure& failure) const {
    const std::string uri = "ldap://127.0.0.1:" + port_.text();
    failure.attach = [uri](RefObjectStore& store) {
      auto* const method = new LDAPLookupMethod({LDAPConnection::RefServer(uri), "", ""});
      store->add(RefLookupMethod(method));
      method->store(store);
    };
  }
  static bool has(const Report& report, Rule rule) {
    const auto& all = report.findings();
    return std::any_of(all.begin(), all.end(),
                       [rule](const ReportFinding& one) { return one.rule() == rule; });
  }

 private:
  ReservedPort port_;
};

TEST_F(FailureReportAdversary, DeadHosts_EarnNoRetries) {
  const Issued silent = issuer("Silent");
  const Issued namesake = issueCA("O=Test,CN=Silent");
  CertificateOptions bad = namingDeadHosts();
  bad.badSignature = true;
  CertificateOptions old = namingDeadHosts();
  old.notBefore = -72h;
  old.notAfter = -24h;
  CertificateOptions both = bad;
  both.notBefore = 24h;
  const Issued forged = leafOf(silent, bad);
  const Issued early = leafOf(silent, both);
  const Issued expired = leafOf(silent, old);
  const Issued byNamesake = leafOf(namesake, namingDeadHosts());
  const Issued critical = leafOf(
      silent, namingDeadHosts({.notBefore = 24h, .rawExtensions = {{"1.2.3.4", true, "\x05\0"s}}}));
  const auto row = [&](const std::string& name, const Issued& leaf, Rule rule, int code) {
    Failure failure = permanent(name, leaf, {silent}, rule, code);
    // They look for CRLs first.
    failure.codes = {{Who::kClassic, kNoCRLFound}, {Who::kOpenSSL, kNoCRLFound}};
    return failure;
  };
  Failure unknown = permanent("by a namesake", byNamesake, {silent}, Rule::kIssuerUnknown,
                              X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  unknown.also = {Who::kClassic, Who::kOpenSSL};
  Failure ofTheFuture = row("forged, of the future", early, Rule::kCertificateSignature,
                            X509_V_ERR_CERT_SIGNATURE_FAILURE);
  Failure unreadable = row("of the future, critical extension", critical, Rule::kCriticalExtension,
                           X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION);
  unreadable.codes.clear();
  unreadable.also = {Who::kClassic, Who::kOpenSSL};
  expect({row("forged", forged, Rule::kCertificateSignature, X509_V_ERR_CERT_SIGNATURE_FAILURE),
          ofTheFuture, row("expired", expired, Rule::kExpired, X509_V_ERR_CERT_HAS_EXPIRED),
          unknown, unreadable});
}

TEST_F(FailureReportAdversary, ForgedBelowAGenuineCAOfTheFuture_IsPermanent) {
  const Issued future = issuer("Future", {.notBefore = 24h});
  install({.issuer = &future});
  const Issued forged = leafOf(future, {.badSignature = true});
  Failure failure = permanent("forged", forged, {future}, Rule::kCertificateSignature,
                              X509_V_ERR_CERT_NOT_YET_VALID);
  failure.also = {Who::kClassic, Who::kOpenSSL};
  expect({failure});
  // What is genuine may be sent again.
  const Report genuine =
      reportOf({.name = "genuine", .leaf = leafOf(future), .untrusted = {future}});
  EXPECT_EQ(genuine.outcome(), Outcome::kTemporary) << textOf(genuine);
}

TEST_F(FailureReportAdversary, FilesThatCannotBeRead_ExcuseNoForgery) {
  const Issued ca = issuer("Damaged");
  installText(makeCRL({.issuer = &ca}).get(), "no CRL");
  const Issued forged = leafOf(ca, {.badSignature = true});
  Failure failure = permanent("forged", forged, {ca}, Rule::kCertificateSignature,
                              X509_V_ERR_CERT_SIGNATURE_FAILURE);
  failure.codes = {{Who::kClassic, X509_V_ERR_UNSPECIFIED},
                   {Who::kOpenSSL, X509_V_ERR_UNSPECIFIED}};
  expect({failure});
}

TEST_F(FailureReportAdversary, DeadHostsBesideARevocation_HideNothing) {
  const Issued ca = issuer("Served");
  CertificateOptions options{.serial = Serial("4711")};
  options.crlDistributionPoints = {{.fullNames = {"URI:" + places.server().url("/first.crl")}}};
  const Issued leaf = leafOf(ca, namingDeadHosts(options));
  const Said said =
      serve("/first.crl", {.issuer = &ca, .revoked = {{.serial = leaf, .reason = 1}}});
  Failure failure = permanent("revoked", leaf, {ca}, Rule::kRevoked, X509_V_ERR_CERT_REVOKED);
  failure.told.values = said.values;
  failure.told.origin = said.origin;
  expect({failure});
  failure.told.origin = inCache(said).origin;
  failure.also = {Who::kClassic};
  expect({failure});
}

TEST_F(FailureReportAdversary, SourceOfIssuersThatIsDown_ExcusesOnlyWhatItMayHave) {
  const Issued stranger = issueCA("O=Elsewhere,CN=Stranger");
  const Issued below = issueCA("O=Elsewhere,CN=Below", &stranger);
  const Issued leaf = leafOf(below);
  const Issued itself = issue({.subject = "O=Test,CN=Anna"});
  Failure chain = permanent("a chain of its own", leaf, {below, stranger}, Rule::kRootUntrusted,
                            X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN);
  chain.told.about = stranger;
  chain.told.depth = 2;
  chain.told.origin = kFromMessage;
  Failure alone = permanent("self-signed", itself, {}, Rule::kSelfSigned,
                            X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  Failure lost = permanent("unknown issuer", leaf, {}, Rule::kIssuerSourceFailed,
                           X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  lost.told.outcome = Outcome::kTemporary;
  for (Failure* const one : {&chain, &alone, &lost}) attachDeadDirectory(*one);
  for (Failure* const one : {&chain, &alone, &lost}) {
    one->options = {"--ldap", "ldap://127.0.0.1:" + dead().substr(17, 5)};
  }
  lost.told.origin = {ReportOrigin::Kind::kLDAP, "ldap://127.0.0.1:" + dead().substr(17, 5)};
  expect({chain, alone, lost});
}

TEST_F(FailureReportAdversary, Namesakes_ChangeNothing) {
  const Issued stranger = issueCA("O=Elsewhere,CN=Stranger");
  std::list<Issued> along;
  for (int i = 0; i < 3; ++i) along.push_back(issueCA("O=Test,CN=Inter", &stranger));
  along.push_back(stranger);
  along.push_back(inter);
  const Issued old = leafOf(inter, {.notBefore = -72h, .notAfter = -24h});
  const Issued listed = leafOf(inter);
  const Said said = install(
      {.issuer = &inter, .number = Serial(9), .revoked = {{.serial = listed, .reason = 1}}});
  Failure expired = permanent("expired", old, along, Rule::kExpired, X509_V_ERR_CERT_HAS_EXPIRED);
  Failure revoked = permanent("revoked", listed, along, Rule::kRevoked, X509_V_ERR_CERT_REVOKED);
  revoked.told.values = said.values;
  revoked.told.origin = said.origin;
  expect({expired, revoked});
}

TEST_F(FailureReportAdversary, WeakListBesideADeadHost_IsTemporary) {
  const Issued ca = issuer("Weak");
  const std::string uri = places.server().url("/weak.crl");
  const Owned<X509_CRL> weak = makeCRL({.issuer = &ca});
  ASSERT_GT(X509_CRL_sign(weak.get(), ca.key.get(), EVP_sha1()), 0);
  places.put("/weak.crl", Scripts::response(der(weak.get())));
  const Issued leaf = leafOf(ca, {.crlDistributionPoints = {{.fullNames = {"URI:" + uri}},
                                                            {.fullNames = {"URI:" + dead()}}}});
  const Report report = reportOf({.name = "weak", .leaf = leaf, .untrusted = {ca}});
  EXPECT_EQ(report.outcome(), Outcome::kTemporary) << textOf(report);
  EXPECT_TRUE(has(report, Rule::kCRLTooWeak)) << textOf(report);
  EXPECT_TRUE(has(report, Rule::kCRLUnreachable)) << textOf(report);
}

TEST_F(FailureReportAdversary, WhatMayBeSecretInURIs_StandsNowhere) {
  const Issued ca = issuer("Silent");
  const std::string authority = "user:pass5ecret@127.0.0.1:" + dead().substr(17, 5);
  CertificateOptions options;
  options.crlDistributionPoints = {
      {.fullNames = {"URI:http://" + authority + "/ca.crl?token=5ecret#part5ecret"}},
      {.fullNames = {"URI:ftp://" + authority + "/ca.crl?token=5ecret"}},
      {.fullNames = {"URI:ldap://" + authority + "/cn=A?5ecret"}},
      {.fullNames = {"URI:http://user:5ecret"}}};
  options.extensions = {{"authorityInfoAccess", "OCSP;URI:http://" + authority + "/?token=5ecret"}};
  const Issued leaf = leafOf(ca, options);
  for (const Who who : {Who::kConforming, Who::kClassic, Who::kOpenSSL}) {
    const Heard heard = hear(who, {.name = "secrets", .leaf = leaf, .untrusted = {ca}});
    const std::string all = allTextsOf(heard.report);
    EXPECT_EQ(heard.report.outcome(), Outcome::kTemporary) << textOf(heard.report);
    EXPECT_EQ(all.find("5ecret"), std::string::npos) << all;
    EXPECT_EQ(all.find("user"), std::string::npos) << all;
    EXPECT_EQ(all.find("token"), std::string::npos) << all;
  }
  const std::vector<Failure> failure{{.name = "secrets", .leaf = leaf, .untrusted = {ca}}};
  for (const char* const form : {"--json", "--explain"}) {
    const CommandResult result = verifyWithTool(failure, {form});
    // The log is what others write.
    const std::string report = result.out.substr(0, result.out.find("\"log\""));
    EXPECT_EQ(report.find("5ecret"), std::string::npos) << report;
  }
}

TEST_F(FailureReportAdversary, HostileNames_BreakNoLine) {
  const std::string hostile[] = {"line\nbreak\r\x0b\x0c",
                                 "\x1b[31mred\x1b]0;title\x07",
                                 "\u202egnp.exe\u2066\u2069\u200f",
                                 "\xc2\x9b"
                                 "31m\u2028\u2029\ufeff",
                                 "nul",
                                 "'\"`$(reboot) %s%n",
                                 std::string(400, 'x') + "\u202e"};
  const Issued ca = issuer("Hostile");
  std::vector<Failure> failures;
  for (const std::string& name : hostile) {
    const Issued leaf = leafOf(ca, {.subject = "O=" + name + ",CN=A" + name});
    failures.push_back({.name = "hostile", .leaf = leaf, .untrusted = {ca}});
    for (const Who who : {Who::kConforming, Who::kClassic}) {
      const Heard heard = hear(who, failures.back());
      const std::string line = heard.report.line();
      EXPECT_LE(line.size(), Report::kMaximumLine);
      EXPECT_TRUE(isFitToShow(line));
      EXPECT_TRUE(line.starts_with("crl-missing: ")) << line;
      EXPECT_EQ(std::count_if(heard.lines.begin(), heard.lines.end(),
                              [&](const LogCapture::Line& one) { return one.text == line; }),
                1);
    }
  }
  for (const char* const form : {"--json", "--explain"}) {
    const CommandResult result = verifyWithTool(failures, {form});
    std::istringstream in(result.out + result.err);
    for (std::string line; std::getline(in, line);) EXPECT_TRUE(isFitToShow(line));
    if (form == "--json"s) {
      EXPECT_EQ(parsed(result).size(), failures.size());
    }
  }
}

TEST_F(FailureReportAdversary, EndlessNames_LeaveRoomForWhatDecides) {
  std::string name = "CN=Anna";
  for (int i = 0; i < 1000; ++i) name += ",OU=" + std::string(100, 'x');
  const Issued ca = issuer("Wide");
  const Said said = install({.issuer = &ca, .number = Serial(7)});
  const Issued revoked = leafOf(ca, {.subject = name});
  install({.issuer = &ca, .number = Serial(8), .revoked = {{.serial = revoked, .reason = 1}}});
  const Report report = reportOf({.name = "wide", .leaf = revoked, .untrusted = {ca}});
  EXPECT_EQ(report.outcome(), Outcome::kPermanent) << report.line();
  const std::string line = report.line();
  EXPECT_LE(line.size(), Report::kMaximumLine);
  EXPECT_TRUE(line.starts_with("revoked: "));
  const std::string parts[] = {"serial " + Serial(revoked).hex(), "#8", "keyCompromise",
                               std::string(factsOf(Rule::kRevoked).advice)};
  for (const std::string& part : parts) EXPECT_NE(line.find(part), std::string::npos) << line;
  EXPECT_LE(allTextsOf(report).size(), Report::kMaximumSize + 1024);
}

}  // namespace
}  // namespace Velantrix::Test
