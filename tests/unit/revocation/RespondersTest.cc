// OCSP in a revocation check: who is asked, whose word counts, and what follows from it (RFC 6960).
#include "support/OCSPBuilder.h"
#include "unit/revocation/Surroundings.h"

#include <gtest/gtest.h>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Asked = std::vector<std::string>;

constexpr char kOne[] = "http://one.test/";
constexpr char kTwo[] = "http://two.test/";
constexpr char kThree[] = "http://three.test/";
const ConfigExtension kResponder{"extendedKeyUsage", "OCSPSigning"};
const ConfigExtension kNoCheck{"noCheck", "yes"};

OCSPSingle single(int status) { return {.status = status}; }

class RespondersTest : public testing::Test {
 protected:
  const VerificationRun run{nullptr};
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued ca = issueCA("O=Test,CN=CA", &root);
  const Issued leaf = person(std::string("OCSP;URI:") + kOne);
  const Issued three = person(std::string("OCSP;URI:") + kOne + ",caIssuers;URI:http://ca.test/" +
                              ",OCSP;DNS:x.test,OCSP;URI:" + kTwo + ",OCSP;URI:" + kThree);
  Surroundings around{root};

  RespondersTest() { around.know(ca); }

  Issued person(const std::string& access) {
    return issue({.subject = "O=Test,CN=Person",
                  .issuer = &ca,
                  .extensions = {{"authorityInfoAccess", access}}});
  }
  // Somebody whom the CA has made a responder.
  Issued responder(const std::vector<ConfigExtension>& more = {}) {
    CertificateOptions options{.subject = "O=Test,CN=Responder", .issuer = &ca};
    options.extensions = {kResponder};
    options.extensions.insert(options.extensions.end(), more.begin(), more.end());
    const Issued made = issue(options);
    around.know(made);
    return made;
  }
  void answer(const std::string& uri, const OCSPAnswer& description) {
    around.sources.responders[uri] = [description](const std::string& request) {
      return ocspAnswer(description, request);
    };
  }
  // The CA is good by the root's CRL.
  Outcome decide(const Issued& certificate) {
    around.publish({.issuer = &root});
    const std::vector<Outcome> outcomes = around.decide({certificate, ca, root});
    EXPECT_EQ(outcomes.at(1).status, Status::kGood);
    return outcomes.front();
  }
  bool wasAsked(const std::string& what) const {
    const Asked& asked = around.sources.asked;
    return std::find(asked.begin(), asked.end(), what) != asked.end();
  }
};

TEST_F(RespondersTest, Good_EndsItAndNoListIsAsked) {
  answer(kOne, {.signer = &ca});
  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kGood);
  EXPECT_EQ(outcome.code, X509_V_OK);
  ASSERT_EQ(outcome.decidedBy.size(), 1U);
  EXPECT_EQ(outcome.decidedBy[0].kind, Statement::Kind::kOCSP);
  EXPECT_FALSE(outcome.cut);
  EXPECT_EQ(around.sources.asked,
            (Asked{"CRLs CN=Root,O=Test", "share", "OCSP "s + kOne, "share ends"}));
}

TEST_F(RespondersTest, Revoked_EndsItWithReasonAndDate) {
  answer(kOne, {.signer = &ca,
                .singles = {{.status = V_OCSP_CERTSTATUS_REVOKED,
                             .reason = 1,
                             .revoked = When("20260102030405Z")}}});
  around.publish({.issuer = &ca});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kRevoked);
  EXPECT_EQ(outcome.code, X509_V_ERR_CERT_REVOKED);
  EXPECT_EQ(outcome.revoked.reason, 1);
  EXPECT_EQ(outcome.revoked.date, Time::then(When("20260102030405Z").time(), true));
  ASSERT_EQ(outcome.decidedBy.size(), 1U);
  EXPECT_EQ(outcome.decidedBy[0].kind, Statement::Kind::kOCSP);
}

TEST_F(RespondersTest, Unknown_TheListsDecide) {
  answer(kOne, {.signer = &ca, .singles = {single(V_OCSP_CERTSTATUS_UNKNOWN)}});
  answer(kTwo, {.signer = &ca});
  const Outcome unknown = decide(three);
  EXPECT_EQ(unknown.status, Status::kUndetermined);
  EXPECT_EQ(unknown.code, X509_V_ERR_UNABLE_TO_GET_CRL);
  const Statement statement = firstFor(unknown, Reason::kStatusUnknown).statement;
  EXPECT_EQ(statement.kind, Statement::Kind::kOCSP);
  EXPECT_EQ(statement.responder->subject().asString(), "CN=CA,O=Test");
  EXPECT_TRUE(statement.thisUpdate);
  around.publish({.issuer = &ca, .revoked = {{.serial = three}}});
  around.sources.asked.clear();
  const Outcome outcome = decide(three);
  EXPECT_EQ(outcome.status, Status::kRevoked);
  ASSERT_EQ(outcome.decidedBy.size(), 1U);
  EXPECT_EQ(outcome.decidedBy[0].kind, Statement::Kind::kCRL);
  EXPECT_EQ(around.sources.asked, (Asked{"CRLs CN=Root,O=Test", "share", "OCSP "s + kOne,
                                         "share ends", "CRLs CN=CA,O=Test"}));
}

TEST_F(RespondersTest, RespondersInTurn_UntilOneAnswerIsUsable) {
  answer(kTwo, {.signer = &ca, .badSignature = true});
  answer(kThree, {.signer = &ca});
  const Outcome outcome = decide(three);
  EXPECT_EQ(outcome.status, Status::kGood);
  EXPECT_EQ(firstFor(outcome, Reason::kWrongSignature).signer->certificate, handle(ca));
  EXPECT_EQ(firstFor(outcome, Reason::kNoAnswer).statement.from.place, kOne);
  EXPECT_EQ(around.sources.asked, (Asked{"CRLs CN=Root,O=Test", "share", "OCSP "s + kOne,
                                         "OCSP "s + kTwo, "OCSP "s + kThree, "share ends"}));
}

TEST_F(RespondersTest, NoUsableAnswer_TheListsDecideAndTheCodeIsTheirs) {
  answer(kOne, {.signer = &ca, .badSignature = true});
  const Outcome none = decide(leaf);
  EXPECT_EQ(none.status, Status::kUndetermined);
  EXPECT_EQ(none.code, X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_TRUE(has(none, Reason::kWrongSignature));

  around.publish({.issuer = &ca,
                  .lastUpdate = -std::chrono::hours(9),
                  .nextUpdate = When(-std::chrono::hours(8))});
  const Outcome expired = decide(leaf);
  EXPECT_EQ(expired.code, X509_V_ERR_CRL_HAS_EXPIRED);
  EXPECT_EQ(expired.setAside.size(), 2U) << "the answer and the list, each once";

  around.publish({.issuer = &ca, .number = Serial(2)});
  const Outcome good = decide(leaf);
  EXPECT_EQ(good.status, Status::kGood);
  EXPECT_EQ(good.decidedBy.at(0).kind, Statement::Kind::kCRL);
}

// RFC 5019, 6.1: what is kept is authoritative, and says when it runs out.
TEST_F(RespondersTest, AnswerThatCounts_IsOfUseUntilItsNextUpdate) {
  const When next(std::chrono::hours(3));
  around.sources.nonce = false;
  const auto isOfUse = [&](const OCSPAnswer& description) {
    around.sources.asked.clear();
    around.sources.kept.clear();
    answer(kOne, description);
    decide(leaf);
    return wasAsked("of use "s + kOne);
  };
  EXPECT_TRUE(isOfUse({.signer = &ca, .singles = {{.nextUpdate = next}}}));
  EXPECT_EQ(around.sources.keptUntil, Time::then(next.time(), true));
  EXPECT_TRUE(isOfUse({.signer = &ca, .singles = {single(V_OCSP_CERTSTATUS_REVOKED)}}));
  EXPECT_FALSE(isOfUse({.signer = &ca, .singles = {{.nextUpdate = {}}}}));
  EXPECT_FALSE(isOfUse({.signer = &ca, .singles = {single(V_OCSP_CERTSTATUS_UNKNOWN)}}));
  EXPECT_FALSE(isOfUse({.signer = &ca, .badSignature = true}));
  EXPECT_FALSE(isOfUse({.signer = &ca, .status = OCSP_RESPONSE_STATUS_TRYLATER}));
  const Issued delegate = responder();
  EXPECT_FALSE(isOfUse({.signer = &delegate})) << "nothing says that it is not revoked";
  around.sources.nonce = true;
  EXPECT_FALSE(isOfUse({.signer = &ca})) << "the nonce makes it nobody else's";
}

TEST_F(RespondersTest, KeptAnswer_IsJudgedAsAnyOther) {
  around.sources.nonce = false;
  answer(kOne, {.signer = &ca, .certificates = false});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  answer(kOne, {.signer = &ca, .singles = {single(V_OCSP_CERTSTATUS_REVOKED)}});
  const Outcome again = decide(leaf);
  EXPECT_EQ(again.status, Status::kGood);
  EXPECT_EQ(again.decidedBy.at(0).from.kind, Provenance::Kind::kCache);
  // The end of its signature.
  around.sources.kept[kOne].back() = static_cast<char>(around.sources.kept[kOne].back() ^ 1);
  around.sources.asked.clear();
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kRevoked);
  EXPECT_TRUE(has(outcome, Reason::kWrongSignature));
  EXPECT_EQ(around.sources.asked,
            (Asked{"CRLs CN=Root,O=Test", "share", "OCSP "s + kOne, "of no use "s + kOne,
                   "OCSP "s + kOne, "of use "s + kOne, "share ends"}));
}

TEST_F(RespondersTest, KeptAnswersThatDoNotCount_AskWithinTheBoundsOfAll) {
  around.sources.nonce = false;
  around.sources.kept[kOne] = "no answer";
  answer(kOne, {.signer = &ca});
  while (run.lookups() + 1 < VerificationRun::kMaximumLookups) VerificationRun::admitLookup();
  EXPECT_TRUE(decide(leaf).cut);
  EXPECT_TRUE(wasAsked("of no use "s + kOne));
  EXPECT_EQ(std::count(around.sources.asked.begin(), around.sources.asked.end(), "OCSP "s + kOne),
            1);
}

TEST_F(RespondersTest, WithoutOCSP_NobodyIsAsked) {
  answer(kOne, {.signer = &ca, .singles = {single(V_OCSP_CERTSTATUS_REVOKED)}});
  around.publish({.issuer = &ca});
  around.scope.useOCSP = false;
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  EXPECT_FALSE(wasAsked("OCSP "s + kOne));
}

TEST_F(RespondersTest, SourceThatMayHaveMore_IsTold) {
  answer(kTwo, {.signer = &ca});
  around.sources.cut = {"OCSP "s + kOne};
  EXPECT_TRUE(decide(three).cut);
  EXPECT_FALSE(around.decide({leaf, ca, root}).at(1).cut);
  around.sources.cut = {"CRLs CN=Root,O=Test"};
  EXPECT_TRUE(around.decide({leaf, ca, root}).at(1).cut);
}

// 4.2.2.2, the delegate.

TEST_F(RespondersTest, Delegate_CountsWhenTheListsSayThatItIsGood) {
  const Issued delegate = responder({{"authorityInfoAccess", "OCSP;URI:"s + kTwo}});
  answer(kOne, {.signer = &delegate});
  answer(kTwo, {.signer = &ca});
  const Outcome undetermined = decide(leaf);
  EXPECT_EQ(undetermined.status, Status::kUndetermined);
  EXPECT_EQ(undetermined.code, X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_TRUE(has(undetermined, Reason::kSignerUndetermined));

  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}});
  const Outcome good = decide(leaf);
  EXPECT_EQ(good.status, Status::kGood);
  EXPECT_EQ(good.decidedBy.at(0).kind, Statement::Kind::kOCSP);
  EXPECT_FALSE(wasAsked("OCSP "s + kTwo)) << "lists alone decide about a delegate";

  around.publish({.issuer = &ca, .number = Serial(2), .revoked = {{.serial = delegate}}});
  const Outcome revoked = decide(leaf);
  EXPECT_TRUE(has(revoked, Reason::kSignerRevoked));
  EXPECT_EQ(revoked.status, Status::kGood);
  EXPECT_EQ(revoked.decidedBy.at(0).kind, Statement::Kind::kCRL);
}

TEST_F(RespondersTest, DelegateThatNeedsNoCheck_CountsWithoutLists) {
  const Issued delegate = responder({kNoCheck});
  answer(kOne, {.signer = &delegate});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.publish({.issuer = &ca, .revoked = {{.serial = delegate}}});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kGood);
  EXPECT_EQ(outcome.decidedBy.at(0).kind, Statement::Kind::kOCSP);
}

TEST_F(RespondersTest, DelegateWithoutAPath_DoesNotCount) {
  const Issued expired = issue({.subject = "O=Test,CN=Responder",
                                .issuer = &ca,
                                .notBefore = -std::chrono::hours(48),
                                .notAfter = -std::chrono::hours(24),
                                .extensions = {kResponder, kNoCheck}});
  around.know(expired);
  answer(kOne, {.signer = &expired});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_TRUE(has(outcome, Reason::kSignerNotValid));
}

TEST_F(RespondersTest, DelegateOfAnotherTrustAnchor_DoesNotCount) {
  const Issued delegate = responder({kNoCheck});
  answer(kOne, {.signer = &delegate});
  around.publish({.issuer = &root});
  around.paths.anchor = handle(issueCA("O=Test,CN=Root"));
  around.paths.known.clear();
  const Outcome outcome = around.decide({leaf, ca, root}).at(0);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  const auto aside = firstFor(outcome, Reason::kSignerNotValid);
  ASSERT_NE(aside.signer, nullptr);
  EXPECT_EQ(aside.signer->certificate, handle(delegate));
  EXPECT_EQ(aside.signer->objection->code, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(RespondersTest, DelegateOfANamesakeWithAnotherKey_DoesNotCount) {
  const Issued namesake = issueCA("O=Test,CN=CA", &root);
  around.know(namesake);
  const Issued delegate = issue({.subject = "O=Test,CN=Responder",
                                 .issuer = &namesake,
                                 .extensions = {kResponder, kNoCheck}});
  around.know(delegate);
  answer(kOne, {.signer = &delegate});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_EQ(outcome.setAside.size(), 1U);
}

// Whoever builds paths may find another certificate above the delegate than the one that is asked for.
TEST_F(RespondersTest, PathOfTheDelegate_LeadsThroughTheKeyOfTheIssuer) {
  const Issued namesake = issueCA("O=Test,CN=CA", &root);
  const Issued delegate = responder({kNoCheck});
  answer(kOne, {.signer = &delegate});
  around.paths.given = {handle(delegate), handle(namesake), handle(root)};
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_TRUE(has(outcome, Reason::kSignerNotAllowed));
}

TEST_F(RespondersTest, RevokedCertificateAboveTheDelegate_TakesItsWordAway) {
  const Issued again =
      issue({.subject = "O=Test,CN=CA", .issuer = &root, .ca = true, .key = ca.key});
  for (const bool noCheck : {false, true}) {
    const Issued delegate =
        responder(noCheck ? std::vector{kNoCheck} : std::vector<ConfigExtension>{});
    answer(kOne, {.signer = &delegate});
    around.paths.given = {handle(delegate), handle(again), handle(root)};
    around.sources.byIssuer.clear();
    around.publish({.issuer = &ca});
    EXPECT_EQ(decide(leaf).decidedBy.at(0).kind, Statement::Kind::kOCSP);
    around.publish({.issuer = &root, .number = Serial(2), .revoked = {{.serial = again}}});
    const Outcome outcome = decide(leaf);
    EXPECT_TRUE(has(outcome, Reason::kSignerRevoked));
    EXPECT_EQ(outcome.decidedBy.at(0).kind, Statement::Kind::kCRL);
    // Where the leaf alone is checked, so is the signer alone.
    around.scope.wholePath = false;
    EXPECT_EQ(around.decide({leaf, ca, root}).at(0).decidedBy.at(0).kind, Statement::Kind::kOCSP);
    around.scope.wholePath = true;
  }
}

// Lists alone decide about the delegate, but not about who is above it.
TEST_F(RespondersTest, IssuerOfTheDelegate_IsGoodByOCSP) {
  const Issued issuer = issue({.subject = "O=Test,CN=CA 2",
                               .issuer = &root,
                               .ca = true,
                               .extensions = {{"authorityInfoAccess", "OCSP;URI:"s + kTwo}}});
  const Issued certificate =
      issue({.issuer = &issuer, .extensions = {{"authorityInfoAccess", "OCSP;URI:"s + kOne}}});
  around.know(issuer);
  for (const bool noCheck : {false, true}) {
    CertificateOptions options{.subject = "O=Test,CN=Responder", .issuer = &issuer};
    options.extensions = {kResponder};
    if (noCheck) options.extensions.push_back(kNoCheck);
    const Issued delegate = issue(options);
    around.know(delegate);
    around.publish({.issuer = &issuer});
    answer(kOne, {.signer = &delegate});
    answer(kTwo, {.signer = &root});
    const std::vector<Outcome> outcomes = around.decide({certificate, issuer, root});
    EXPECT_EQ(outcomes.at(1).status, Status::kGood);
    EXPECT_EQ(outcomes.at(0).status, Status::kGood);
    EXPECT_EQ(outcomes.at(0).decidedBy.at(0).kind, Statement::Kind::kOCSP);
  }
}

TEST_F(RespondersTest, CertificateInQuestion_DoesNotVouchForItself) {
  const Issued self =
      issue({.issuer = &ca,
             .extensions = {{"authorityInfoAccess", "OCSP;URI:"s + kOne}, kResponder, kNoCheck}});
  around.know(self);
  answer(kOne, {.signer = &self});
  EXPECT_EQ(decide(self).status, Status::kUndetermined);
}

// The key of the lists' issuer is certified by the CA as well: whether it is revoked is told by its own
// list, if at all, which is believed only while nothing else says so.
TEST_F(RespondersTest, DelegateThatRestsOnAnAssumption_CountsWhereItMay) {
  const Issued crlKey = issue({.subject = "O=Test,CN=CA", .issuer = &ca, .keyUsage = KU_CRL_SIGN});
  around.know(crlKey);
  const Issued delegate = responder();
  answer(kOne, {.signer = &delegate});
  around.publish({.issuer = &crlKey});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kGood);
  EXPECT_EQ(outcome.decidedBy.at(0).kind, Statement::Kind::kOCSP);
}

TEST_F(RespondersTest, NestedTooDeep_FallsShort) {
  const Issued delegate = responder({kNoCheck});
  answer(kOne, {.signer = &delegate});
  around.publish({.issuer = &ca});
  atDepth(VerificationRun::kMaximumLevel - 1, [&] {
    EXPECT_FALSE(VerificationRun::current()->fellShort());
    const Outcome outcome = decide(leaf);
    EXPECT_TRUE(has(outcome, Reason::kTooManyNested));
    EXPECT_TRUE(VerificationRun::current()->fellShort());
  });
}

TEST_F(RespondersTest, ProcessorTimeUsedUp_NobodyIsAsked) {
  answer(kOne, {.signer = &ca});
  std::thread([this] {
    const VerificationRun bounded(nullptr, {.processorTime = std::chrono::nanoseconds(0)});
    around.scope.wholePath = false;
    EXPECT_EQ(around.decide({leaf, ca, root}).at(0).status, Status::kUndetermined);
    EXPECT_TRUE(bounded.fellShort());
  }).join();
  EXPECT_TRUE(around.sources.asked.empty());
}

// The path.

TEST_F(RespondersTest, Intermediate_HasResponderOfItsOwn) {
  const Issued inner = issue({.subject = "O=Test,CN=CA 2",
                              .issuer = &root,
                              .ca = true,
                              .extensions = {{"authorityInfoAccess", "OCSP;URI:"s + kTwo}}});
  const Issued certificate =
      issue({.issuer = &inner, .extensions = {{"authorityInfoAccess", "OCSP;URI:"s + kOne}}});
  answer(kOne, {.signer = &inner});
  answer(kTwo, {.signer = &root});
  std::vector<Outcome> outcomes = around.decide({certificate, inner, root});
  EXPECT_EQ(outcomes.at(1).status, Status::kGood);
  EXPECT_EQ(outcomes.at(0).status, Status::kGood);

  // The good answer for the leaf does not hide it.
  answer(kTwo, {.signer = &root, .singles = {single(V_OCSP_CERTSTATUS_REVOKED)}});
  around.sources.asked.clear();
  outcomes = around.decide({certificate, inner, root});
  EXPECT_EQ(outcomes.at(1).status, Status::kRevoked);
  EXPECT_EQ(outcomes.at(0).status, Status::kUndetermined);
  EXPECT_EQ(outcomes.at(0).code, X509_V_OK);
  EXPECT_FALSE(wasAsked("OCSP "s + kOne));
}

TEST_F(RespondersTest, GoodLeafBelowAnIntermediateThatAListRevokes_IsNotGood) {
  answer(kOne, {.signer = &ca});
  around.publish({.issuer = &root, .revoked = {{.serial = ca}}});
  const std::vector<Outcome> outcomes = around.decide({leaf, ca, root});
  EXPECT_EQ(outcomes.at(1).status, Status::kRevoked);
  EXPECT_EQ(outcomes.at(0).status, Status::kUndetermined);
}

// RFC 9608

TEST_F(RespondersTest, NoRevocationAvailable_NobodyIsAsked) {
  const RawExtension none{.oid = "2.5.29.56", .der = "\x05\0"s};
  const Issued certificate = issue({.issuer = &ca, .rawExtensions = {none}});
  around.publish({.issuer = &ca, .revoked = {{.serial = certificate}}});
  const Outcome outcome = decide(certificate);
  EXPECT_EQ(outcome.status, Status::kNotNeeded);
  EXPECT_EQ(outcome.code, X509_V_OK);
  EXPECT_EQ(around.sources.asked, Asked{"CRLs CN=Root,O=Test"});

  answer(kOne, {.signer = &ca});
  const Issued misused = issue({.issuer = &ca,
                                .extensions = {{"authorityInfoAccess", "OCSP;URI:"s + kOne}},
                                .rawExtensions = {none}});
  around.sources.asked.clear();
  const Outcome error = decide(misused);
  EXPECT_EQ(error.status, Status::kUndetermined);
  EXPECT_EQ(error.code, X509_V_ERR_INVALID_EXTENSION);
  EXPECT_EQ(around.sources.asked, Asked{"CRLs CN=Root,O=Test"});
}

TEST_F(RespondersTest, ExtensionThatCannotBeRead_IsAnErrorOfTheCertificate) {
  const Issued certificate =
      issue({.issuer = &ca, .rawExtensions = {{.oid = "1.3.6.1.5.5.7.1.1", .der = "\x30\x05\0"s}}});
  around.publish({.issuer = &ca});
  const Outcome outcome = decide(certificate);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_EQ(outcome.code, X509_V_ERR_INVALID_EXTENSION);
  ASSERT_EQ(outcome.setAside.size(), 1U);
  EXPECT_EQ(outcome.setAside[0].reason, Reason::kMalformed);
  EXPECT_EQ(outcome.setAside[0].statement.kind, Statement::Kind::kCertificate);
}

}  // namespace
}  // namespace Velantrix::Test
