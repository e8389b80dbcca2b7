// What a verifier reports on what it has done: why, about which certificate, by which CRL, and whether it
// pays to try again.
#include "support/LogCapture.h"
#include "unit/report/CountedOutcome.h"
#include "unit/verify/World.h"

#include <pkx509/SimpleVerifier.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;
using Finding = VerificationReport::Finding;
using Status = VerificationReport::RevocationResult::Status;

class VerifierReport : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  World world;
  LogCapture log;

  VerifierReport() {
    world.trust(root);
    world.trust(inter);
  }

  Issued person(const CertificateOptions& changed = {}) const {
    CertificateOptions options = changed;
    options.subject = "O=Test,CN=Person";
    if (options.issuer == nullptr) options.issuer = &inter;
    return issue(options);
  }
  Issued through(const std::string& crlIssuer, const Issued& issuer) const {
    return person(
        {.issuer = &issuer, .crlDistributionPoints = {{.crlIssuers = {"dirName:" + crlIssuer}}}});
  }
  void publishAll() {
    world.publish({.issuer = &root});
    world.publish({.issuer = &inter});
  }
  void publishIndirect(const Issued& issuer) {
    world.publish({.issuer = &issuer, .idp = Scope{.indirect = true}});
  }
  VerificationReport reportOn(const Issued& issued, bool useOpenSSL = false) {
    Verifier verifier(world.store, handle(issued), useOpenSSL);
    const Statistics before = Statistics::snapshot();
    const int verdict = verifier.isValid();
    VerificationReport report = verifier.report();
    EXPECT_EQ(report.code(), verdict);
    // What is counted has no second look at the path, which only a report is worth.
    const std::optional<Outcome> counted = outcomeCountedSince(before);
    const bool lookedAgain =
        counted == Outcome::kTemporary && report.outcome() == Outcome::kPermanent;
    EXPECT_TRUE(counted == report.outcome() || lookedAgain);
    return report;
  }

  static Rule decisive(const VerificationReport& report) {
    return report.findings().empty() ? Rule::kNotVerified : report.findings().front().rule();
  }
  static bool has(const std::vector<Finding>& findings, Rule rule) {
    return std::any_of(findings.begin(), findings.end(), [rule](const Finding& one) {
      return one.rule() == rule || has(one.nested(), rule);
    });
  }
  // The directory of the store does not exist, which is told as well.
  static std::vector<Rule> rulesOf(const VerificationReport& report) {
    std::vector<Rule> rules;
    for (const Finding& one : report.findings()) {
      const VerificationReport::Origin::Kind kind = one.origin().kind();
      if (kind != VerificationReport::Origin::Kind::kTrustDirectory) rules.push_back(one.rule());
    }
    return rules;
  }
  static std::string textOf(const Finding& finding, std::string_view name) {
    const VerificationReport::Value* const value = finding.find(name);
    const auto* const text = value == nullptr ? nullptr : std::get_if<std::string>(value);
    return text == nullptr ? "" : *text;
  }
  static std::int64_t distanceOf(const Finding& finding) {
    const VerificationReport::Value* const value = finding.find("secondsFromCheckTime");
    return value == nullptr ? 0 : std::get<std::int64_t>(*value);
  }
};

TEST_F(VerifierReport, BeforeAVerification_OnNothing) {
  const Verifier verifier(world.store, handle(root), false);
  EXPECT_EQ(decisive(verifier.report()), Rule::kNotVerified);
  EXPECT_EQ(verifier.report().outcome(), Outcome::kPermanent);
}

TEST_F(VerifierReport, Valid_NamesTheCRLsThatSaySo) {
  publishAll();
  const Issued leaf = person();
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    const VerificationReport report = reportOn(leaf, useOpenSSL);
    EXPECT_EQ(report.outcome(), Outcome::kValid);
    EXPECT_TRUE(rulesOf(report).empty());
    ASSERT_EQ(report.path().size(), 3U);
    for (const std::size_t depth : {0U, 1U}) {
      const auto& revocation = report.path()[depth].revocation();
      EXPECT_EQ(revocation.status(), Status::kGood);
      ASSERT_EQ(revocation.decidedBy().size(), 1U);
      EXPECT_EQ(revocation.decidedBy().front().issuer, report.path()[depth].certificate().issuer());
      EXPECT_EQ(revocation.decidedBy().front().number, "1");
    }
    // OpenSSL wants one for the root as well.
    EXPECT_EQ(report.path()[2].revocation().status(),
              useOpenSSL ? Status::kGood : Status::kNotChecked);
  }
}

TEST_F(VerifierReport, Revoked_ByWhichCRLWhenAndWhy) {
  const Issued leaf = person();
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter,
                 .number = Serial(1042),
                 .revoked = {{.serial = leaf, .date = "20260102030405Z", .reason = 1}}});
  for (const bool useOpenSSL : {false, true}) {
    SCOPED_TRACE(useOpenSSL);
    const VerificationReport report = reportOn(leaf, useOpenSSL);
    EXPECT_EQ(report.code(), X509_V_ERR_CERT_REVOKED);
    EXPECT_EQ(report.outcome(), Outcome::kPermanent);
    ASSERT_EQ(decisive(report), Rule::kRevoked);
    const Finding& finding = report.findings().front();
    EXPECT_EQ(finding.depth(), 0);
    EXPECT_EQ(textOf(finding, "crlNumber"), "1042");
    EXPECT_EQ(textOf(finding, "reason"), "keyCompromise");
    ASSERT_NE(finding.find("revocationDate"), nullptr);
    EXPECT_EQ(std::get<Time>(*finding.find("revocationDate")).seconds(),
              When("20260102030405Z").time());
    EXPECT_EQ(report.path()[0].revocation().status(), Status::kRevoked);
  }
}

TEST_F(VerifierReport, RevokedIntermediate_IsBlamedAndNotTheLeaf) {
  const Issued leaf = person();
  world.publish({.issuer = &root, .revoked = {{.serial = inter, .reason = 4}}});
  world.publish({.issuer = &inter});
  for (const bool useOpenSSL : {false, true}) {
    const VerificationReport report = reportOn(leaf, useOpenSSL);
    ASSERT_EQ(decisive(report), Rule::kRevoked);
    EXPECT_EQ(report.findings().front().depth(), 1);
    EXPECT_EQ(textOf(report.findings().front(), "reason"), "superseded");
    EXPECT_EQ(report.path()[0].revocation().status(), Status::kGood);
  }
}

TEST_F(VerifierReport, OnHold_IsTemporary) {
  const Issued leaf = person();
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter, .revoked = {{.serial = leaf, .reason = 6}}});
  for (const bool useOpenSSL : {false, true}) {
    const VerificationReport report = reportOn(leaf, useOpenSSL);
    EXPECT_EQ(decisive(report), Rule::kOnHold);
    EXPECT_EQ(report.outcome(), Outcome::kTemporary);
  }
}

// The CRL speaks about some reasons only, and one of them is why it lists the certificate.
TEST_F(VerifierReport, RevokedWhereReasonsAreMissing_IsRevokedAllTheSame) {
  const Issued leaf = person();
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter,
                 .revoked = {{.serial = leaf, .reason = 1}},
                 .idp = Scope{.onlySomeReasons = 0x40}});
  const VerificationReport report = reportOn(leaf);
  EXPECT_EQ(report.code(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(decisive(report), Rule::kRevoked);
  EXPECT_EQ(report.outcome(), Outcome::kPermanent);
  EXPECT_TRUE(has(report.findings(), Rule::kCRLReasons));
}

TEST_F(VerifierReport, CRLsThatDoNotCount_SayWhy) {
  struct Row {
    const char* name;
    CRLOptions crl;
    Rule rule;
    bool alsoOpenSSL = true;
  };
  const Row rows[] = {
      {"expired", {.lastUpdate = hours(-48), .nextUpdate = hours(-24)}, Rule::kCRLExpired},
      {"from the future", {.lastUpdate = hours(24)}, Rule::kCRLNotYetValid},
      {"forged", {.badSignature = true}, Rule::kCRLSignature, false},
      {"for CAs", {.idp = Scope{.onlyCA = true}}, Rule::kCRLScope, false},
      {"for attribute certificates",
       {.idp = Scope{.onlyAttributes = true}},
       Rule::kCRLScope,
       false},
      {"of another point",
       {.idp = Scope{.fullNames = {"URI:http://a.test/"}}},
       Rule::kCRLScope,
       false},
      {"some reasons", {.idp = Scope{.onlySomeReasons = 0x40}}, Rule::kCRLReasons, false},
      {"delta without base",
       {.number = Serial(7), .deltaBase = Serial(6)},
       Rule::kCRLNoBase,
       false},
      {"critical extension",
       {.rawExtensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"}}},
       Rule::kCRLCriticalExtension},
  };
  const Issued leaf = person();
  for (const Row& row : rows) {
    for (const bool useOpenSSL : {false, true}) {
      if (useOpenSSL && !row.alsoOpenSSL) continue;
      SCOPED_TRACE(row.name);
      SCOPED_TRACE(useOpenSSL);
      world.source->crls.clear();
      world.publish({.issuer = &root});
      CRLOptions options = row.crl;
      options.issuer = &inter;
      world.publish(options);
      const VerificationReport report = reportOn(leaf, useOpenSSL);
      ASSERT_EQ(decisive(report), row.rule) << factsOf(decisive(report)).name;
      EXPECT_EQ(report.outcome(), Outcome::kTemporary);
      const Finding& finding = report.findings().front();
      EXPECT_EQ(finding.depth(), 0);
      EXPECT_EQ(finding.certificate().subject(), handle(leaf)->subject().asString());
      if (row.rule == Rule::kCRLReasons) {
        EXPECT_NE(textOf(finding, "missingReasons").find("cACompromise"), std::string::npos);
      } else {
        EXPECT_EQ(textOf(finding, "crlIssuer"), handle(inter)->subject().asString());
      }
      const std::int64_t hoursAway = (distanceOf(finding) - 60) / 3600;
      const bool timely = row.rule == Rule::kCRLExpired || row.rule == Rule::kCRLNotYetValid;
      EXPECT_EQ(timely ? std::abs(hoursAway) : 0, timely ? (hoursAway < 0 ? 24 : 23) : 0);
    }
  }
}

TEST_F(VerifierReport, NoCRL_IsMissing) {
  for (const bool useOpenSSL : {false, true}) {
    const VerificationReport report = reportOn(person(), useOpenSSL);
    EXPECT_EQ(report.code(), X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(decisive(report), Rule::kCRLMissing);
    EXPECT_EQ(report.findings().front().depth(), 0);
    EXPECT_EQ(report.outcome(), Outcome::kTemporary);
  }
}

// It counts in the end, so nothing is said against it.
TEST_F(VerifierReport, ExpiryThatIsOverwritten_IsNoFinding) {
  const Issued lists = issueCA("O=Test,CN=Lists", &root);
  world.trust(lists);
  const Issued leaf =
      person({.crlDistributionPoints = {{.crlIssuers = {"dirName:O=Test,CN=Inter"}},
                                        {.crlIssuers = {"dirName:O=Test,CN=Lists"}}}});
  world.publish({.issuer = &inter,
                 .lastUpdate = hours(-48),
                 .nextUpdate = hours(-24),
                 .idp = Scope{.indirect = true}});
  publishIndirect(lists);
  world.publish({.issuer = &root});
  const VerificationReport report = reportOn(leaf);
  ASSERT_TRUE(report.valid());
  EXPECT_TRUE(rulesOf(report).empty());
  EXPECT_EQ(report.path()[0].revocation().decidedBy().size(), 2U);
}

TEST_F(VerifierReport, CRLOfAnUnknownIssuer) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  publishIndirect(stranger);
  const VerificationReport report = reportOn(through("O=Test,CN=Stranger", root));
  EXPECT_EQ(decisive(report), Rule::kCRLIssuerUnknown);
  EXPECT_EQ(textOf(report.findings().front(), "crlIssuer"), handle(stranger)->subject().asString());
}

TEST_F(VerifierReport, NestedIssuer_ItsOwnFindingsHangBelow) {
  const Issued lists = issueCA("O=Test,CN=Lists", &root);
  world.trust(lists);
  publishIndirect(lists);
  const Issued leaf = through("O=Test,CN=Lists", root);

  VerificationReport report = reportOn(leaf);  // nobody says whether Lists is revoked
  ASSERT_EQ(decisive(report), Rule::kCRLIssuerUndetermined);
  EXPECT_EQ(textOf(report.findings().front(), "signer"), handle(lists)->subject().asString());
  EXPECT_TRUE(has(report.findings().front().nested(), Rule::kCRLMissing));

  world.publish({.issuer = &root, .revoked = {{.serial = lists, .reason = 1}}});
  report = reportOn(leaf);
  ASSERT_EQ(decisive(report), Rule::kCRLIssuerRevoked);
  EXPECT_EQ(report.outcome(), Outcome::kTemporary);
  ASSERT_TRUE(has(report.findings().front().nested(), Rule::kRevoked));
  EXPECT_EQ(textOf(report.findings().front().nested().front(), "reason"), "keyCompromise");

  const Issued old = issue({.subject = "O=Test,CN=Old",
                            .issuer = &root,
                            .notBefore = hours(-48),
                            .notAfter = hours(-24),
                            .ca = true});
  world.trust(old);
  publishIndirect(old);
  report = reportOn(through("O=Test,CN=Old", root));
  ASSERT_EQ(decisive(report), Rule::kCRLIssuerInvalid);
  EXPECT_TRUE(has(report.findings().front().nested(), Rule::kExpired));
}

TEST_F(VerifierReport, CircleOfIssuers_SaysSo) {
  const auto ca = [&](const std::string& name, const std::string& teller) {
    Issued made = issue({.subject = name,
                         .issuer = &root,
                         .ca = true,
                         .crlDistributionPoints = {{.crlIssuers = {"dirName:" + teller}}}});
    world.trust(made);
    publishIndirect(made);
    return made;
  };
  const Issued a = ca("O=Test,CN=A", "O=Test,CN=B");
  const Issued b = ca("O=Test,CN=B", "O=Test,CN=A");
  const VerificationReport report = reportOn(through("O=Test,CN=A", root));
  EXPECT_EQ(report.code(), X509_V_ERR_CRL_PATH_VALIDATION_ERROR);
  EXPECT_EQ(decisive(report), Rule::kCRLCircle);
  EXPECT_TRUE(has(report.findings(), Rule::kNestedTooDeep));
  EXPECT_EQ(report.outcome(), Outcome::kTemporary);
}

// Revocation is checked before signatures, times, names and policies: who names no CRL, or a dead host,
// must not earn a retry by it.
TEST_F(VerifierReport, WhatNeverWillDo_IsPermanentThoughACRLIsMissing) {
  const Issued narrow = issue({.subject = "O=Test,CN=Narrow",
                               .issuer = &root,
                               .ca = true,
                               .extensions = {{"nameConstraints", "permitted;email:a.test"}}});
  world.trust(narrow);
  struct Row {
    const char* name;
    CertificateOptions leaf;
    Rule rule;
    Outcome outcome;
  };
  const Row rows[] = {
      {"genuine", {}, Rule::kCRLMissing, Outcome::kTemporary},
      {"forged", {.badSignature = true}, Rule::kCertificateSignature, Outcome::kPermanent},
      {"expired",
       {.notBefore = hours(-48), .notAfter = hours(-24)},
       Rule::kExpired,
       Outcome::kPermanent},
      {"not yet valid", {.notBefore = hours(24)}, Rule::kCRLMissing, Outcome::kTemporary},
      {"not yet valid, and forged",
       {.notBefore = hours(24), .badSignature = true},
       Rule::kCertificateSignature,
       Outcome::kPermanent},
      {"a name that its CA may not give",
       {.issuer = &narrow, .extensions = {{"subjectAltName", "email:a@b.test"}}},
       Rule::kNameConstraint,
       Outcome::kPermanent},
  };
  for (const Row& row : rows) {
    for (const bool useOpenSSL : {false, true}) {
      SCOPED_TRACE(row.name);
      SCOPED_TRACE(useOpenSSL);
      const VerificationReport report = reportOn(person(row.leaf), useOpenSSL);
      EXPECT_EQ(report.code(), X509_V_ERR_UNABLE_TO_GET_CRL);
      EXPECT_EQ(decisive(report), row.rule) << factsOf(decisive(report)).name;
      EXPECT_EQ(report.outcome(), row.outcome);
      EXPECT_TRUE(has(report.findings(), Rule::kCRLMissing));
    }
  }
}

TEST_F(VerifierReport, Statistics_TellWhatTheVerificationsOfThisProcessTook) {
  using Counter = Statistics::Counter;
  publishAll();
  const Statistics before = Statistics::snapshot();
  while (Statistics::snapshot().of(Counter::kProcessorMicroseconds) <
         before.of(Counter::kProcessorMicroseconds) + 1000) {
    EXPECT_TRUE(reportOn(person()).valid());
  }
  const Statistics after = Statistics::snapshot();
  const auto grown = [&](Counter one) { return after.of(one) - before.of(one); };
  EXPECT_GE(grown(Counter::kVerificationsValid), 1U);
  // Both certificates above and the lists of both, at least.
  EXPECT_GE(grown(Counter::kHitsMethod), 4 * grown(Counter::kVerificationsValid));
  EXPECT_GE(grown(Counter::kLookupsMethod), grown(Counter::kHitsMethod));
  EXPECT_EQ(grown(Counter::kFetches), 0U);
}

TEST_F(VerifierReport, PolicyBehindAMissingCRL_IsPermanent) {
  Verifier::Config config;
  config.policies = {"1.2.3.4"};
  config.flags |= X509_V_FLAG_EXPLICIT_POLICY;
  for (const bool useOpenSSL : {false, true}) {
    Verifier verifier(world.store, handle(person()), RefStackOfCertificate(), config, useOpenSSL);
    const Statistics before = Statistics::snapshot();
    EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
    EXPECT_EQ(decisive(verifier.report()), Rule::kPolicy);
    EXPECT_EQ(outcomeCountedSince(before), Outcome::kTemporary) << "without a second look";
    EXPECT_EQ(verifier.report().outcome(), Outcome::kPermanent);
  }
}

// OpenSSL looks at the purpose before it asks about revocation.
TEST_F(VerifierReport, PurposeBesideAMissingCRL_IsPermanent) {
  Verifier verifier(world.store,
                    handle(person({.extensions = {{"extendedKeyUsage", "serverAuth"}}})), false);
  X509_STORE_CTX_set_purpose(verifier, X509_PURPOSE_SMIME_SIGN);
  EXPECT_NE(verifier.isValid(), 0);
  EXPECT_EQ(decisive(verifier.report()), Rule::kPurpose);
  EXPECT_EQ(verifier.report().outcome(), Outcome::kPermanent);
}

int letEverythingPass(int /*ok*/, X509_STORE_CTX* context) {
  X509_STORE_CTX_set_error(context, X509_V_OK);
  return 1;
}
int letPassAndKeepTheCode(int /*ok*/, X509_STORE_CTX* /*context*/) { return 1; }
int refuseEverything(int /*ok*/, X509_STORE_CTX* context) {
  X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
  return 0;
}
int agree(int ok, X509_STORE_CTX* /*context*/) { return ok; }

TEST_F(VerifierReport, Callback_ThatDecidesDifferentlyIsNamed) {
  publishAll();
  const Issued good = person();
  const Issued expired = person({.notBefore = hours(-48), .notAfter = hours(-24)});
  struct Row {
    const char* name;
    const Issued& issued;
    X509_STORE_CTX_verify_cb callback;
    int verdict;
    std::vector<Rule> rules;
  };
  const Row rows[] = {
      {"accepts", expired, letEverythingPass, 0, {Rule::kCallbackAccepted, Rule::kExpired}},
      {"refuses",
       good,
       refuseEverything,
       X509_V_ERR_APPLICATION_VERIFICATION,
       {Rule::kCallbackRefused, Rule::kUnexplained}},
      {"agrees that it is good", good, agree, 0, {}},
      {"agrees that it is not", expired, agree, X509_V_ERR_CERT_HAS_EXPIRED, {Rule::kExpired}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Verifier verifier(world.store, handle(row.issued), false);
    X509_STORE_CTX_set_verify_cb(verifier, row.callback);
    const Statistics before = Statistics::snapshot();
    EXPECT_EQ(verifier.isValid(), row.verdict);
    const VerificationReport report = verifier.report();
    EXPECT_EQ(rulesOf(report), row.rules);
    EXPECT_EQ(report.outcome(), row.verdict == 0 ? Outcome::kValid : Outcome::kPermanent);
    EXPECT_EQ(outcomeCountedSince(before), report.outcome());
  }
}

// A path that ends nowhere, let pass by a callback, and then no CRL: nobody vouches for any of it.
TEST_F(VerifierReport, UntrustedEndThatACallbackLetPass_IsNeverTemporary) {
  const Issued stranger = issueCA("O=Test,CN=Stranger");
  for (const X509_STORE_CTX_verify_cb callback : {letEverythingPass, letPassAndKeepTheCode}) {
    Verifier verifier(world.store, handle(person({.issuer = &stranger})), stackOf({stranger}),
                      false);
    X509_STORE_CTX_set_verify_cb(verifier, callback);
    EXPECT_NE(verifier.isValid(), 0);
    EXPECT_EQ(verifier.report().outcome(), Outcome::kPermanent);
  }
}

TEST_F(VerifierReport, OverrideOfTheRevocationCheck_ThatDecidesDifferentlyIsNamed) {
  const Issued leaf = person();
  struct Row {
    const char* name;
    bool published;
    bool asksBase;
    int answer;
    Rule rule;
  };
  const Row rows[] = {{"accepts", false, true, 1, Rule::kOverrideAccepted},
                      {"refuses", true, true, 0, Rule::kOverrideRefused},
                      {"accepts, and asks nobody", true, false, 1, Rule::kOverrideAccepted},
                      {"refuses, and asks nobody", true, false, 0, Rule::kOverrideRefused},
                      {"agrees", true, true, 1, Rule::kNotVerified}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    world.source->crls.clear();
    if (row.published) publishAll();
    Probe verifier(world.store, handle(leaf), false);
    verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
      if (row.asksBase) verifier.Verifier::checkRevocationStatus(chain);
      if (row.answer == 1) verifier.contextError(X509_V_OK);
      return row.answer;
    };
    EXPECT_EQ(verifier.isValid() == 0, row.answer == 1);
    const VerificationReport report = verifier.report();
    EXPECT_EQ(decisive(report), row.rule) << factsOf(decisive(report)).name;
    EXPECT_EQ(report.outcome(), row.answer == 1 ? Outcome::kValid : Outcome::kPermanent);
    EXPECT_EQ(has(report.findings(), Rule::kCRLMissing), !row.published);
  }
}

TEST_F(VerifierReport, OverrideThatAsksAboutSome_BlamesTheRightOne) {
  const Issued leaf = person();
  world.publish({.issuer = &inter});
  world.publish({.issuer = &root, .revoked = {{.serial = inter, .reason = 1}}});
  Probe verifier(world.store, handle(leaf), false);
  verifier.onCheck = [&](const std::list<RefCertificate>& chain) {
    return verifier.Verifier::checkRevocationStatus({std::next(chain.begin()), chain.end()});
  };
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_CERT_REVOKED);
  const VerificationReport report = verifier.report();
  ASSERT_EQ(decisive(report), Rule::kRevoked);
  EXPECT_EQ(report.findings().front().depth(), 1);
  EXPECT_EQ(report.path()[0].revocation().status(), Status::kNotChecked);
}

TEST_F(VerifierReport, FailureThatSticks_SaysSoAndWhatItWas) {
  const Issued leaf = person();
  Verifier verifier(world.store, handle(leaf), false);
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  publishAll();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(verifier.isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
    const VerificationReport report = verifier.report();
    EXPECT_EQ(report.code(), X509_V_ERR_UNABLE_TO_GET_CRL);
    ASSERT_EQ(decisive(report), Rule::kEarlierFailure);
    EXPECT_TRUE(has(report.findings().front().nested(), Rule::kCRLMissing));
  }
}

TEST_F(VerifierReport, ThrownException_IsNeverValid) {
  const Issued leaf = person();
  publishAll();
  struct Row {
    const char* name;
    std::function<void()> thrower;
    Rule rule;
  };
  const Row rows[] = {
      {"the library's", [] { throw Exception("broken", Exception::kFailure, "Test", 1); },
       Rule::kExtensionInvalid},
      {"memory", [] { throw std::bad_alloc(); }, Rule::kOutOfResources},
      {"another's", [] { throw std::runtime_error("own"); }, Rule::kException},
      {"nobody's", [] { throw 7; }, Rule::kException}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Probe verifier(world.store, handle(leaf), false);
    EXPECT_EQ(verifier.isValid(), 0);
    verifier.onGetCRLs = [&](const RefCertificate&, CRLContainer&) { row.thrower(); };
    const Statistics before = Statistics::snapshot();
    EXPECT_ANY_THROW(verifier.isValid());
    const VerificationReport report = verifier.report();
    EXPECT_EQ(outcomeCountedSince(before), report.outcome());
    EXPECT_FALSE(report.valid());
    EXPECT_EQ(report.code(), X509_V_ERR_UNSPECIFIED);
    EXPECT_NE(report.outcome(), Outcome::kValid);
    EXPECT_EQ(decisive(report), row.rule) << factsOf(decisive(report)).name;
  }
  // Nor does it hide a forgery.
  Probe forged(world.store, handle(person({.badSignature = true})), false);
  forged.onGetCRLs = [](const RefCertificate&, CRLContainer&) { throw std::bad_alloc(); };
  EXPECT_THROW(forged.isValid(), std::bad_alloc);
  EXPECT_EQ(decisive(forged.report()), Rule::kCertificateSignature);
}

// What is broken in the certificate of a CRL's issuer is no fault of the one that is verified.
TEST_F(VerifierReport, BrokenExtension_IsBlamedOnWhatHasIt) {
  const RawExtension unreadable{.oid = "1.3.6.1.5.5.7.1.1", .der = "\x30\x03\x05"};
  const Issued lists = issue(
      {.subject = "O=Test,CN=Lists", .issuer = &root, .ca = true, .rawExtensions = {unreadable}});
  world.trust(lists);
  publishAll();
  publishIndirect(lists);
  Verifier verifier(world.store, handle(through("O=Test,CN=Lists", root)), false);
  EXPECT_THROW(verifier.isValid(), Exception);
  const VerificationReport report = verifier.report();
  EXPECT_EQ(decisive(report), Rule::kCRLIssuerInvalid) << factsOf(decisive(report)).name;
  EXPECT_TRUE(has(report.findings(), Rule::kExtensionInvalid));
  EXPECT_EQ(report.outcome(), Outcome::kTemporary);

  Verifier other(world.store, handle(person({.rawExtensions = {unreadable}})), false);
  EXPECT_THROW(other.isValid(), Exception);
  EXPECT_EQ(decisive(other.report()), Rule::kExtensionInvalid);
  EXPECT_EQ(other.report().outcome(), Outcome::kPermanent);
}

TEST_F(VerifierReport, SimpleVerifier_FillsTheCallersReport) {
  auto* const source = new MemorySource;
  const RefLookupMethod method(source);
  source->certificates = {handle(root), handle(inter)};
  SimpleVerifier verifier;
  verifier.add(method);
  VerificationReport report;
  EXPECT_EQ(verifier.isValid(handle(person()), 0, true, report), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(report.code(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(decisive(report), Rule::kCRLMissing);

  const Statistics before = Statistics::snapshot();
  EXPECT_EQ(verifier.isValid(handle(person({.keyUsage = KU_KEY_ENCIPHERMENT})),
                             KU_DIGITAL_SIGNATURE, true, report),
            -1);
  EXPECT_EQ(outcomeCountedSince(before), Outcome::kPermanent);
  EXPECT_EQ(report.code(), X509_V_ERR_UNSPECIFIED);
  EXPECT_EQ(decisive(report), Rule::kKeyUsage);

  source->onQuery = [](Query, const DistinguishedName&) { throw std::runtime_error("down"); };
  EXPECT_THROW(verifier.isValid(handle(person()), 0, true, report), std::runtime_error);
  EXPECT_FALSE(report.valid());
  EXPECT_EQ(decisive(report), Rule::kException);
  source->onQuery = [](Query, const DistinguishedName&) {
    throw Exception("down", Exception::kFailure, "Test", 1);
  };
  EXPECT_EQ(verifier.isValid(handle(person()), 0, true, report), -1);
  EXPECT_FALSE(report.valid());
  EXPECT_NE(report.outcome(), Outcome::kValid);
}

}  // namespace
}  // namespace Velantrix::Test
