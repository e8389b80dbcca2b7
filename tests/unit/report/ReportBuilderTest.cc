// What a report makes of the evidence: what comes first, and its bounds.
#include "report/Evidence.h"
#include "support/Handles.h"
#include "unit/report/Findings.h"

#include <openssl/x509_vfy.h>

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::PKX509::Evidence;
using Crypto::PKX509::keyUsageReport;
using Crypto::PKX509::outcomeOf;
using Crypto::PKX509::RefCertificate;
using Crypto::PKX509::SourceRecord;
using Crypto::PKX509::Surroundings;
using Crypto::PKX509::UseFacts;
namespace Revocation = Crypto::PKX509::Revocation;
using Revocation::Reason;
using Source = Report::Source;
using Thrown = Evidence::Thrown;

const Issued& trustAnchor() {
  static const Issued made = issueCA("CN=Root");
  return made;
}
const RefCertificate& anna() {
  static const RefCertificate made =
      handle(issue({.subject = "CN=Anna", .issuer = &trustAnchor(), .serial = "5F01"}));
  return made;
}

// Of a verification that failed with the code.
Evidence evidenceOf(int code) {
  Evidence evidence;
  evidence.verified = true;
  evidence.code = code;
  return evidence;
}

Surroundings surroundings() {
  return {.path = {anna(), handle(trustAnchor())},
          .origins = {{Report::Origin::Kind::kCaller, ""},
                      {Report::Origin::Kind::kTrustDirectory, "/trust", "/trust/1.0"}},
          .checked = Time::now()};
}

// Its outcome is that of the rules alone.
Report reportOf(const Evidence& evidence, Surroundings around) {
  Report report = Crypto::PKX509::makeReport(evidence, around);
  around.rulesOnly = true;
  if (evidence.verified) {
    EXPECT_EQ(outcomeOf(evidence, around), report.outcome());
  }
  return report;
}

std::vector<Rule> rulesOf(const std::vector<Finding>& findings) {
  std::vector<Rule> rules;
  for (const Finding& one : findings) rules.push_back(one.rule());
  return rules;
}
using Rules = std::vector<Rule>;

Revocation::Outcome undetermined(Reason reason, int code = X509_V_ERR_UNABLE_TO_GET_CRL) {
  Revocation::Outcome outcome;
  outcome.code = code;
  outcome.setAsideFor(reason, {.issuer = "CN=Root", .number = "7"});
  return outcome;
}

Evidence revocationEvidence(int code, Reason reason) {
  Evidence evidence = evidenceOf(code);
  evidence.revocation = {undetermined(reason, code), {}};
  evidence.failedDepth = 0;
  return evidence;
}

std::size_t countOf(const std::vector<Finding>& findings) {
  std::size_t count = findings.size();
  for (const Finding& one : findings) count += countOf(one.nested());
  return count;
}

TEST(ReportBuilder, NothingVerified_IsTheReportOnNothing) {
  const Report report = reportOf({}, surroundings());
  EXPECT_EQ(rulesOf(report.findings()), Rules{Rule::kNotVerified});
  EXPECT_FALSE(report.valid());
}

TEST(ReportBuilder, Path_HasWhatIsKnownOfEachCertificate) {
  Evidence evidence = evidenceOf(X509_V_OK);
  Revocation::Outcome good;
  good.status = Revocation::Status::kGood;
  good.decidedBy = {{.issuer = "CN=Root", .number = "7"}};
  evidence.revocation = {good, {}};
  const Report report = reportOf(evidence, surroundings());
  EXPECT_TRUE(report.valid());
  EXPECT_EQ(report.outcome(), Outcome::kValid);
  ASSERT_EQ(report.path().size(), 2U);
  EXPECT_EQ(report.pathLeftOut(), 0U);
  const Report::Link& link = report.path().front();
  EXPECT_EQ(link.certificate(), Report::Subject("CN=Anna", "CN=Root", "5F01"));
  EXPECT_EQ(link.fingerprint().size(), 64U);
  EXPECT_TRUE(link.notBefore() && link.notAfter() && *link.notBefore() < *link.notAfter());
  EXPECT_EQ(link.origin().kind(), Report::Origin::Kind::kCaller);
  EXPECT_EQ(link.revocation().status(), Report::RevocationResult::Status::kGood);
  EXPECT_EQ(link.revocation().decidedBy().front().number, "7");
  EXPECT_EQ(report.path().back().origin().file(), "/trust/1.0");
  EXPECT_EQ(report.path().back().revocation().status(),
            Report::RevocationResult::Status::kNotChecked);
}

TEST(ReportBuilder, TheVerdictsOwnObjectionComesFirst) {
  Evidence evidence = evidenceOf(X509_V_ERR_CERT_HAS_EXPIRED);
  evidence.objections = {{anna(), 0, X509_V_ERR_INVALID_PURPOSE},
                         {anna(), 0, X509_V_ERR_CERT_HAS_EXPIRED},
                         {handle(trustAnchor()), 1, X509_V_ERR_INVALID_CA}};
  const Report report = reportOf(evidence, surroundings());
  EXPECT_EQ(rulesOf(report.findings()), (Rules{Rule::kExpired, Rule::kNotACA, Rule::kPurpose}));
  EXPECT_EQ(report.code(), X509_V_ERR_CERT_HAS_EXPIRED);
}

TEST(ReportBuilder, TheCertificateWhoseRevocationDecidedComesFirst) {
  Evidence evidence = evidenceOf(X509_V_ERR_UNABLE_TO_GET_CRL);
  evidence.revocation = {undetermined(Reason::kExpired), undetermined(Reason::kWrongSignature)};
  evidence.failedDepth = 0;
  const Report report = reportOf(evidence, surroundings());
  EXPECT_EQ(rulesOf(report.findings()), (Rules{Rule::kCRLExpired, Rule::kCRLSignature}));
  evidence.failedDepth = 1;
  EXPECT_EQ(reportOf(evidence, surroundings()).findings().front().depth(), 1);
}

TEST(ReportBuilder, NoEvidence_IsExplainedByTheCode) {
  const Report report = reportOf(evidenceOf(X509_V_ERR_UNSPECIFIED), surroundings());
  EXPECT_EQ(rulesOf(report.findings()), Rules{Rule::kUnexplained});
  EXPECT_EQ(report.findings().front().certificate().subject(), "CN=Anna");
  EXPECT_NE(report.findings().front().find(DetailName::kText), nullptr);
  EXPECT_TRUE(reportOf(evidenceOf(X509_V_OK), surroundings()).findings().empty());
}

// Who forges a certificate earns no retries with hosts that do not answer.
TEST(ReportBuilder, HiddenPermanentObjection_ComesFirst) {
  const Evidence evidence = revocationEvidence(X509_V_ERR_UNABLE_TO_GET_CRL, Reason::kExpired);
  Surroundings around = surroundings();
  EXPECT_EQ(reportOf(evidence, around).outcome(), Outcome::kTemporary);
  around.again = {{anna(), 0, X509_V_ERR_CERT_NOT_YET_VALID},
                  {anna(), 0, X509_V_ERR_CERT_SIGNATURE_FAILURE}};
  const Report report = reportOf(evidence, around);
  EXPECT_EQ(report.outcome(), Outcome::kPermanent);
  EXPECT_EQ(rulesOf(report.findings()), (Rules{Rule::kCertificateSignature, Rule::kCRLExpired}));
  EXPECT_EQ(report.code(), X509_V_ERR_UNABLE_TO_GET_CRL);
  // It is not told twice.
  Evidence permanent = evidenceOf(X509_V_ERR_CERT_SIGNATURE_FAILURE);
  permanent.objections = {around.again.back()};
  EXPECT_EQ(reportOf(permanent, around).findings().size(), 1U);
}

// That the issuer is unknown then is the directory's fault, anything else is not.
TEST(ReportBuilder, HiddenObjection_AboutTheIssuerIsTheTrustDirectorysFault) {
  Evidence evidence = evidenceOf(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  evidence.objections = {{anna(), 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}};
  Surroundings around = surroundings();
  around.trustDirectory = "/no/such/directory";
  around.again = evidence.objections;
  EXPECT_EQ(reportOf(evidence, around).findings().front().rule(), Rule::kTrustDirectoryMissing);
  around.again.push_back({anna(), 0, X509_V_ERR_CERT_HAS_EXPIRED});
  EXPECT_EQ(reportOf(evidence, around).findings().front().rule(), Rule::kExpired);
}

TEST(ReportBuilder, StickyFailure_SaysSoAndWhatItWas) {
  Evidence evidence = evidenceOf(X509_V_ERR_CERT_HAS_EXPIRED);
  evidence.earlierStands = true;
  evidence.earlier = finding({.rule = Rule::kExpired, .code = X509_V_ERR_CERT_HAS_EXPIRED});
  const Report report = reportOf(evidence, surroundings());
  EXPECT_EQ(rulesOf(report.findings()), Rules{Rule::kEarlierFailure});
  EXPECT_EQ(rulesOf(report.findings().front().nested()), Rules{Rule::kExpired});
  EXPECT_FALSE(report.valid());
}

TEST(ReportBuilder, Thrown_IsToldByItsKind) {
  const std::pair<Thrown::Kind, Rule> rows[] = {
      {Thrown::Kind::kMemory, Rule::kOutOfResources},
      {Thrown::Kind::kClientIdentity, Rule::kClientIdentity},
      {Thrown::Kind::kLibrary, Rule::kExtensionInvalid},
      {Thrown::Kind::kOther, Rule::kException}};
  for (const auto& [kind, rule] : rows) {
    Evidence evidence = evidenceOf(X509_V_ERR_UNSPECIFIED);
    evidence.thrown = {kind, "why"};
    const Report report = reportOf(evidence, surroundings());
    EXPECT_EQ(rulesOf(report.findings()), Rules{rule});
    EXPECT_EQ(*report.findings().front().find(DetailName::kText), Report::Value("why"s));
    EXPECT_FALSE(report.valid());
    EXPECT_NE(report.outcome(), Outcome::kValid);
  }
}

TEST(ReportBuilder, ThrownByTheLibrary_IsTheLastSourceThatFailed) {
  Evidence evidence = evidenceOf(X509_V_ERR_UNSPECIFIED);
  evidence.thrown = {Thrown::Kind::kLibrary, "why"};
  for (const char* const file : {"/trust/1.0", "/trust/2.0"}) {
    evidence.sources.add({.kind = Source::Kind::kDirectory,
                          .wanted = Source::Wanted::kCertificates,
                          .origin = "/trust",
                          .result = Source::Result::kFailed,
                          .facts = {.failure = UseFacts::Failure::kUnreadable, .file = file}});
  }
  const Report report = reportOf(evidence, surroundings());
  EXPECT_EQ(rulesOf(report.findings()), Rules{Rule::kTrustFileUnreadable});
  EXPECT_EQ(*report.findings().front().find(DetailName::kFile), Report::Value("/trust/2.0"s));
}

TEST(ReportBuilder, ProgramsDecision_IsAFindingOfItsOwn) {
  using Intervention = Evidence::Intervention;
  const std::pair<Intervention, Rule> rows[] = {
      {Intervention::kCallbackAccepted, Rule::kCallbackAccepted},
      {Intervention::kCallbackRefused, Rule::kCallbackRefused},
      {Intervention::kOverrideAccepted, Rule::kOverrideAccepted},
      {Intervention::kOverrideRefused, Rule::kOverrideRefused}};
  for (const auto& [intervention, rule] : rows) {
    const bool accepted = rule == Rule::kCallbackAccepted || rule == Rule::kOverrideAccepted;
    Evidence evidence = evidenceOf(accepted ? X509_V_OK : X509_V_ERR_CERT_REVOKED);
    evidence.intervention = intervention;
    evidence.objections = {{anna(), 0, X509_V_ERR_CERT_HAS_EXPIRED}};
    const Report report = reportOf(evidence, surroundings());
    EXPECT_EQ(rulesOf(report.findings()), (Rules{rule, Rule::kExpired}));
    EXPECT_EQ(report.outcome(), accepted ? Outcome::kValid : Outcome::kPermanent);
  }
}

// Where the program's callback has the last word, OpenSSL is asked again what it objects to.
TEST(ReportBuilder, CallbackThatDecides_IsKnownFromASecondLook) {
  Evidence evidence = evidenceOf(X509_V_OK);
  evidence.callbackDecides = true;
  Surroundings around = surroundings();
  EXPECT_TRUE(reportOf(evidence, around).findings().empty());
  around.again = {{anna(), 0, X509_V_ERR_CERT_HAS_EXPIRED}};
  EXPECT_EQ(rulesOf(reportOf(evidence, around).findings()),
            (Rules{Rule::kCallbackAccepted, Rule::kExpired}));
  evidence.code = X509_V_ERR_CERT_HAS_EXPIRED;
  EXPECT_EQ(reportOf(evidence, around).findings().front().rule(), Rule::kExpired);
  evidence.code = X509_V_ERR_APPLICATION_VERIFICATION;
  around.again.clear();
  EXPECT_EQ(rulesOf(reportOf(evidence, around).findings()), Rules{Rule::kCallbackRefused});
}

TEST(ReportBuilder, RefusedAndFellShort_AreTold) {
  Evidence refused = evidenceOf(X509_V_ERR_UNSPECIFIED);
  refused.refusal = "too deep";
  EXPECT_EQ(rulesOf(reportOf(refused, surroundings()).findings()), Rules{Rule::kNestedTooDeep});
  Evidence shortOf = revocationEvidence(X509_V_ERR_UNABLE_TO_GET_CRL, Reason::kExpired);
  shortOf.fellShort = true;
  shortOf.spent = {"network time"};
  const Report report = reportOf(shortOf, surroundings());
  EXPECT_EQ(report.findings().front().rule(), Rule::kBudgetSpent);
  EXPECT_EQ(*report.findings().front().find(DetailName::kResource), Report::Value("network time"s));
}

TEST(ReportBuilder, KeyUsageThatDoesNotFit_IsToldWithoutAVerification) {
  const Report report = keyUsageReport(anna());
  EXPECT_EQ(rulesOf(report.findings()), Rules{Rule::kKeyUsage});
  EXPECT_EQ(report.outcome(), Outcome::kPermanent);
  ASSERT_EQ(report.path().size(), 1U);
  EXPECT_EQ(report.path().front().certificate().subject(), "CN=Anna");
}

TEST(ReportBuilder, ManyFindings_AreCutAndCounted) {
  Evidence evidence = evidenceOf(X509_V_ERR_CERT_HAS_EXPIRED);
  for (int i = 0; i < 70; ++i) {
    evidence.objections.push_back({{}, i, X509_V_ERR_INVALID_PURPOSE});
  }
  evidence.objections.push_back({anna(), 0, X509_V_ERR_CERT_HAS_EXPIRED});
  const Report report = reportOf(evidence, surroundings());
  EXPECT_EQ(report.findings().size(), Report::kMaximumFindings);
  EXPECT_EQ(report.findingsLeftOut(), 71 - Report::kMaximumFindings);
  EXPECT_EQ(report.findings().front().rule(), Rule::kExpired);
}

// A finding with so many below it, and below these.
Finding nested(int width, int depth) {
  FindingParts parts{.rule = Rule::kCRLIssuerInvalid};
  for (int i = 0; depth > 0 && i < width; ++i) parts.nested.push_back(nested(width, depth - 1));
  return finding(std::move(parts));
}

TEST(ReportBuilder, NestedFindings_CountAndAreTrimmed) {
  Evidence evidence = evidenceOf(X509_V_ERR_CERT_HAS_EXPIRED);
  evidence.earlierStands = true;
  evidence.earlier = nested(4, 4);
  const std::size_t all = 1 + countOf({*evidence.earlier});
  const Report report = reportOf(evidence, surroundings());
  EXPECT_EQ(countOf(report.findings()), Report::kMaximumFindings);
  EXPECT_EQ(report.findingsLeftOut(), all - Report::kMaximumFindings);
  EXPECT_EQ(report.findings().front().rule(), Rule::kEarlierFailure);
}

TEST(ReportBuilder, Sources_AreInBoundsAndTheRestCounted) {
  Evidence evidence = evidenceOf(X509_V_OK);
  for (std::size_t i = 0; i < Report::kMaximumSources + 10; ++i) {
    evidence.sources.add({.kind = Source::Kind::kCRLServer,
                          .wanted = Source::Wanted::kCRLs,
                          .origin = "http://h/" + std::to_string(i),
                          .result = Source::Result::kFound,
                          .found = 1,
                          .taken = std::chrono::microseconds(5),
                          .facts = {.bytes = 9}});
  }
  const Report report = reportOf(evidence, surroundings());
  ASSERT_EQ(report.sources().size(), Report::kMaximumSources);
  EXPECT_EQ(report.sourcesLeftOut(), 10U);
  EXPECT_EQ(report.sources().front().origin(), "http://h/0");
  EXPECT_EQ(report.sources().front().microseconds(), 5U);
  EXPECT_EQ(report.sources().front().bytes(), 9U);
  EXPECT_EQ(report.sources().front().found(), 1U);
}

std::size_t sizeOf(const Finding& finding) {
  std::size_t size = finding.certificate().subject().size() + finding.certificate().issuer().size();
  for (const Report::Detail& one : finding.details()) {
    if (const auto* const text = std::get_if<std::string>(&one.value)) size += text->size();
  }
  for (const Finding& one : finding.nested()) size += sizeOf(one);
  return size;
}

// What a stranger made as long as he could keeps neither findings, nor the path, nor sources out.
TEST(ReportBuilder, Texts_AreInBoundsAndTheRestCounted) {
  const std::string longName(Report::kMaximumText, 'x');
  const RefCertificate large = handle(
      issue({.subject = "CN=" + longName, .issuerName = "CN=" + longName, .serial = "5F01"}));
  Evidence evidence = evidenceOf(X509_V_ERR_CERT_HAS_EXPIRED);
  for (int i = 0; i < 70; ++i) {
    evidence.objections.push_back({large, i, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY});
  }
  evidence.objections.push_back({large, 0, X509_V_ERR_CERT_HAS_EXPIRED});
  for (int i = 0; i < 100; ++i) {
    evidence.sources.add({.origin = std::to_string(i) + longName, .facts = {.reason = longName}});
  }
  Surroundings around = surroundings();
  around.path.assign(20, large);
  const Report report = reportOf(evidence, around);
  std::size_t size = 0;
  for (const Finding& one : report.findings()) size += sizeOf(one);
  for (const Report::Link& one : report.path()) {
    size += one.certificate().subject().size() + one.certificate().issuer().size();
  }
  for (const Source& one : report.sources()) size += one.origin().size() + one.reason().size();
  EXPECT_LE(size, Report::kMaximumSize);
  EXPECT_GT(size, Report::kMaximumSize - 4096);
  EXPECT_EQ(report.findings().front().rule(), Rule::kExpired);
  EXPECT_EQ(report.findings().size() + report.findingsLeftOut(), 71U);
  EXPECT_EQ(report.path().size() + report.pathLeftOut(), 20U);
  EXPECT_GT(report.path().size(), 8U);
  EXPECT_GT(report.findings().size(), 12U);
  EXPECT_GT(report.sources().size(), 12U);
  EXPECT_GT(report.pathLeftOut(), 0U);
  EXPECT_GT(report.findingsLeftOut(), 0U);
  EXPECT_EQ(report.sources().size() + report.sourcesLeftOut(), 100U);
  EXPECT_GT(report.sourcesLeftOut(), 0U);
}

// Statements of strangers, each with a signer of its own whose revocation was checked, and so on.
TEST(ReportBuilder, SignersWithoutEnd_AreInBounds) {
  Revocation::Outcome outcome = undetermined(Reason::kExpired);
  for (int depth = 0; depth < 6; ++depth) {
    auto signer = std::make_shared<Revocation::AboutSigner>();
    signer->certificate = anna();
    signer->revocation = std::make_shared<const Revocation::Outcome>(outcome);
    Revocation::Outcome above;
    above.code = X509_V_ERR_UNABLE_TO_GET_CRL;
    for (int i = 0; i < 8; ++i) {
      above.setAsideFor(Reason::kSignerUndetermined, {.issuer = "CN=Root"}, {}, signer);
    }
    outcome = above;
  }
  Evidence evidence = evidenceOf(X509_V_ERR_UNABLE_TO_GET_CRL);
  evidence.revocation = {outcome};
  evidence.failedDepth = 0;
  const Report report = reportOf(evidence, surroundings());
  EXPECT_LE(countOf(report.findings()), Report::kMaximumFindings);
  EXPECT_GT(report.findingsLeftOut(), 0U);
}

}  // namespace
}  // namespace Velantrix::Test
