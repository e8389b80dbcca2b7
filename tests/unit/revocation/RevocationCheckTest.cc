#include "foundation/run/VerificationRun.h"
#include "revocation/RevocationCheck.h"
#include "support/OCSPBuilder.h"
#include "support/Verdicts.h"
#include "unit/revocation/Surroundings.h"

#include <openssl/err.h>

#include <algorithm>
#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using std::chrono::hours;
using Scope = Velantrix::Test::IssuingDistributionPoint;

class RevocationCheckTest : public testing::Test {
 protected:
  const VerificationRun run{nullptr};
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued ca = issueCA("O=Test,CN=CA", &root);
  Surroundings around{root};
  CRLOptions rootCRL{.issuer = &root};

  RevocationCheckTest() { around.know(ca); }

  Issued person(CertificateOptions options = {}) {
    options.subject = "O=Test,CN=Person";
    options.issuer = &ca;
    return issue(options);
  }
  Issued through(const std::vector<DistributionPoint>& points) {
    return person({.crlDistributionPoints = points});
  }
  // The CA is good by the root's CRL.
  Outcome decide(const Issued& leaf) {
    around.publish(rootCRL);
    const std::vector<Outcome> outcomes = around.decide({leaf, ca, root});
    EXPECT_EQ(outcomes.at(1).status, Status::kGood);
    return outcomes.front();
  }
};

TEST_F(RevocationCheckTest, NothingOffered_UndeterminedFromTheAnchorDown) {
  const Issued leaf = person();
  const std::vector<Outcome> outcomes = around.decide({leaf, ca, root});
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_EQ(outcomes[1].status, Status::kUndetermined);
  EXPECT_EQ(outcomes[1].code, X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(outcomes[0].status, Status::kUndetermined);
  EXPECT_EQ(outcomes[0].code, X509_V_OK);
  EXPECT_EQ(around.sources.asked, std::vector<std::string>{"CRLs CN=Root,O=Test"});
}

TEST_F(RevocationCheckTest, ListOfTheIssuer_GoodOrRevokedWithReasonAndDate) {
  const Issued leaf = person();
  around.publish({.issuer = &ca});
  const Outcome good = decide(leaf);
  EXPECT_EQ(good.status, Status::kGood);
  EXPECT_EQ(good.code, X509_V_OK);
  ASSERT_EQ(good.decidedBy.size(), 1U);
  EXPECT_EQ(good.decidedBy[0].crl->crlInfo().issuer().asString(), "CN=CA,O=Test");
  EXPECT_EQ(good.decidedBy[0].crl->crlNumber().asString(), "01");

  around.publish({.issuer = &ca,
                  .number = Serial(2),
                  .revoked = {{.serial = leaf, .date = "20260102030405Z", .reason = 1}}});
  const Outcome revoked = decide(leaf);
  EXPECT_EQ(revoked.status, Status::kRevoked);
  EXPECT_EQ(revoked.code, kRevoked);
  EXPECT_EQ(revoked.revoked.reason, 1);
  EXPECT_EQ(revoked.revoked.date, Time::then(When("20260102030405Z").time(), true));
  ASSERT_EQ(revoked.decidedBy.size(), 1U);
  EXPECT_EQ(revoked.decidedBy[0].crl->crlNumber().asString(), "02");
  EXPECT_TRUE(has(revoked, Reason::kSuperseded));
}

TEST_F(RevocationCheckTest, RevokedIntermediate_NothingBelowIsAsked) {
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}}});
  around.publish({.issuer = &root, .revoked = {{.serial = ca}}});
  const std::vector<Outcome> outcomes = around.decide({leaf, ca, root});
  EXPECT_EQ(outcomes[1].status, Status::kRevoked);
  EXPECT_EQ(outcomes[0].status, Status::kUndetermined);
  EXPECT_EQ(around.sources.asked.size(), 1U);
}

// 5280, 6.3.3 (a): times.

TEST_F(RevocationCheckTest, ListOutsideOfItsTime_DoesNotCount) {
  struct Row {
    const char* what;
    When thisUpdate;
    std::optional<When> nextUpdate;
    Status status;
    std::optional<Reason> reason;
  };
  const Row rows[] = {
      {"expired", -hours(48), When(-hours(1)), Status::kUndetermined, Reason::kExpired},
      {"not yet", hours(1), When(hours(2)), Status::kUndetermined, Reason::kNotYetValid},
      {"undated, young", -hours(23), std::nullopt, Status::kGood, std::nullopt},
      {"undated, old", -hours(25), std::nullopt, Status::kUndetermined, Reason::kExpired},
      {"current", -hours(48), When(hours(1)), Status::kGood, std::nullopt}};
  const Issued leaf = person();
  for (const Row& row : rows) {
    around.sources.byIssuer.clear();
    around.publish({.issuer = &ca, .lastUpdate = row.thisUpdate, .nextUpdate = row.nextUpdate});
    const Outcome outcome = decide(leaf);
    EXPECT_EQ(outcome.status, row.status) << row.what;
    EXPECT_TRUE(!row.reason || has(outcome, *row.reason)) << row.what;
    EXPECT_EQ(outcome.code == X509_V_ERR_CRL_HAS_EXPIRED, row.reason == Reason::kExpired);
  }
}

TEST_F(RevocationCheckTest, TimeThatIsAskedAbout_DecidesWhichListIsTheNewest) {
  const Issued leaf = person();
  around.publish({.issuer = &ca, .lastUpdate = -hours(30), .number = Serial(1)});
  around.publish({.issuer = &ca,
                  .lastUpdate = -hours(10),
                  .number = Serial(2),
                  .revoked = {{.serial = leaf}}});
  around.publish({.issuer = &root, .lastUpdate = -hours(30)});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
  around.moment.checked = Time::then(-20 * 3600, false);
  EXPECT_EQ(decide(leaf).status, Status::kGood);
}

// 6.3.3 (b)(1)

TEST_F(RevocationCheckTest, ListOfAnotherIssuer_DoesNotCountWithoutCRLIssuer) {
  const Issued other = issueCA("O=Test,CN=Other", &root);
  around.know(other);
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}}});
  around.publishAt(kHere, {.issuer = &other});
  around.publishAt(kHere, {.issuer = &other, .idp = Scope{.indirect = true}});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_EQ(outcome.code, X509_V_ERR_DIFFERENT_CRL_SCOPE);
  EXPECT_TRUE(has(outcome, Reason::kOtherIssuer));
}

TEST_F(RevocationCheckTest, CRLIssuer_CountsWithAnIndirectListOnly) {
  const Issued other = issueCA("O=Test,CN=Other", &root);
  around.know(other);
  const Issued leaf =
      through({{.fullNames = {"URI:"s + kHere}, .crlIssuers = {"dirName:O=Test,CN=Other"}}});
  around.publishAt(kHere, {.issuer = &other});
  around.publishAt(kHere, {.issuer = &other, .idp = Scope{.fullNames = {"URI:"s + kHere}}});
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
  around.publishAt(
      kHere, {.issuer = &other, .idp = Scope{.fullNames = {"URI:"s + kHere}, .indirect = true}});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.sources.byURI.clear();
  around.publishAt(
      kHere, {.issuer = &other,
              .number = Serial(2),
              .revoked = {{.serial = leaf}, {.serial = leaf, .certificateIssuer = "O=Test,CN=CA"}},
              .idp = Scope{.fullNames = {"URI:"s + kHere}, .indirect = true}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

// 5.3.3: an entry without a certificate issuer is of the issuer of the entry before it, and at first of
// the issuer of the list.
TEST_F(RevocationCheckTest, EntryOfAnotherIssuer_IsAboutAnotherCertificate) {
  const Issued leaf = person();
  around.publish({.issuer = &ca,
                  .revoked = {{.serial = leaf, .certificateIssuer = "O=Test,CN=Other"}},
                  .idp = Scope{.indirect = true}});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.sources.byIssuer.clear();
  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}, .idp = Scope{.indirect = true}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

// OpenSSL looks at entries until it finds one that it cannot read: whom those behind it are about is not
// known then.
TEST_F(RevocationCheckTest, EntryBehindOneThatCannotBeRead_DoesNotMakeItGood) {
  const Issued other = issueCA("O=Test,CN=Other", &root);
  around.know(other);
  const Issued leaf = through({{.crlIssuers = {"dirName:O=Test,CN=Other"}}});
  const RawExtension reason{.oid = "2.5.29.21", .der = "\x0a\x01\x01"};
  const RawExtension broken{.oid = "2.5.29.21", .der = "\x05\0"s};
  for (const std::vector<RawExtension>& before :
       {std::vector{broken}, std::vector{reason, reason}}) {
    around.sources.byIssuer.clear();
    around.publish({.issuer = &other,
                    .revoked = {{.serial = 77, .extensions = before},
                                {.serial = leaf, .certificateIssuer = "O=Test,CN=CA"}},
                    .idp = Scope{.indirect = true}});
    EXPECT_NE(decide(leaf).status, Status::kGood);
    ERR_clear_error();
  }
}

// 6.3.3 (d), (l), and what follows it.

TEST_F(RevocationCheckTest, SomeReasons_AllOfThemHaveToBeCovered) {
  const Issued leaf = person();
  around.publish({.issuer = &ca, .idp = Scope{.onlySomeReasons = 0x60}});
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
  EXPECT_TRUE(decide(leaf).decidedBy.empty());
  around.publish({.issuer = &ca, .idp = Scope{.onlySomeReasons = 0x801f}});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.publish({.issuer = &ca,
                  .revoked = {{.serial = leaf, .reason = 0}},
                  .idp = Scope{.onlySomeReasons = 0x40}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(RevocationCheckTest, PointsForSomeReasons_EachListCountsForThoseOfItsPoint) {
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}, .reasons = 0x60},
                               {.fullNames = {"URI:"s + kThere}, .reasons = 0x801f}});
  around.publishAt(kHere, {.issuer = &ca, .idp = Scope{.fullNames = {"URI:"s + kHere}}});
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
  around.publishAt(kThere, {.issuer = &ca, .idp = Scope{.fullNames = {"URI:"s + kThere}}});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
}

TEST_F(RevocationCheckTest, ScopesThatDisagree_ARevocationWins) {
  const Issued leaf =
      through({{.fullNames = {"URI:"s + kHere}}, {.fullNames = {"URI:"s + kThere}}});
  around.publishAt(kHere, {.issuer = &ca, .number = Serial(9)});
  around.publishAt(kThere, {.issuer = &ca,
                            .number = Serial(1),
                            .revoked = {{.serial = leaf}},
                            .idp = Scope{.fullNames = {"URI:"s + kThere}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(RevocationCheckTest, UndeterminedByThePoints_TheIssuersListsCount) {
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}}});
  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
  around.publishAt(kHere, {.issuer = &ca, .number = Serial(2)});
  around.sources.asked.clear();
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  EXPECT_EQ(around.sources.asked,
            (std::vector<std::string>{"CRLs CN=Root,O=Test", "URI "s + kHere}));
}

TEST_F(RevocationCheckTest, ListThatAPointGivesAsWell_IsNoLessTheIssuers) {
  const Issued other = issueCA("O=Test,CN=Other", &root);
  const Issued leaf =
      through({{.fullNames = {"dirName:O=Test,CN=CA"}, .crlIssuers = {"dirName:O=Test,CN=Other"}}});
  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(RevocationCheckTest, IssuersListAtAPointOfAnotherIssuer_CountsWhereNothingElseDoes) {
  const Issued leaf =
      through({{.fullNames = {"URI:"s + kHere}, .crlIssuers = {"dirName:O=Test,CN=Other"}}});
  around.publishAt(kHere, {.issuer = &ca, .revoked = {{.serial = leaf}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(RevocationCheckTest, PointForSomeReasons_ItsListCountsForNoMore) {
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}, .reasons = 0x60}});
  around.publishAt(kHere, {.issuer = &ca});
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
  around.publish({.issuer = &ca});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
}

TEST_F(RevocationCheckTest, CompleteListAtThePlaceOfDeltas_CountsWithTheIssuersOnly) {
  const Issued leaf = person({.freshestCRL = {{.fullNames = {"URI:"s + kDeltas}}}});
  around.publishAt(kDeltas, {.issuer = &ca, .number = Serial(2), .idp = Scope{.onlyUser = true}});
  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

// 6.3.3 (f), (g)

TEST_F(RevocationCheckTest, ListThatItsIssuerHasNotSigned_8) {
  const Issued stranger = issueCA("O=Test,CN=CA");
  const Issued leaf = person();
  around.publish({.issuer = &ca, .signer = stranger.key});
  around.publish({.issuer = &ca, .number = Serial(2), .badSignature = true});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_EQ(outcome.code, X509_V_ERR_CRL_SIGNATURE_FAILURE);
  around.publish({.issuer = &ca});
  EXPECT_EQ(decide(leaf).status, Status::kGood) << "neither helps nor harms";
}

TEST_F(RevocationCheckTest, NamesakeUnderAnotherAnchor_DoesNotSpeakForIt) {
  const Issued otherRoot = issueCA("O=Other,CN=Root");
  const Issued namesake = issueCA("O=Test,CN=CA", &otherRoot);
  around.know(otherRoot);
  around.know(namesake);
  const Issued leaf = person();
  around.publish({.issuer = &ca, .revoked = {{.serial = leaf}}});
  around.publish({.issuer = &namesake, .number = Serial(2)});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(RevocationCheckTest, SignerWithoutCRLSign_DoesNotCount) {
  const Issued namesake =
      issue({.subject = "O=Test,CN=CA", .issuer = &root, .ca = true, .keyUsage = KU_KEY_CERT_SIGN});
  around.know(namesake);
  const Issued leaf = person();
  around.publish({.issuer = &namesake});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_TRUE(has(outcome, Reason::kSignerNotAllowed));
}

TEST_F(RevocationCheckTest, KeyForListsOfTheSameName_ItsOwnRevocationCounts) {
  const Issued crlKey =
      issue({.subject = "O=Test,CN=CA", .issuer = &root, .keyUsage = KU_CRL_SIGN});
  around.know(crlKey);
  const Issued leaf = person();
  around.publish({.issuer = &crlKey});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  rootCRL.number = Serial(2);
  rootCRL.revoked = {{.serial = crlKey}};
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  EXPECT_TRUE(has(outcome, Reason::kSignerRevoked));
}

// What is being decided counts as unrevoked by hypothesis, where nothing else settles it.

class SelfCoverTest : public RevocationCheckTest {
 protected:
  // The CA has certified a key for its CRLs, which are about that certificate as well.
  const Issued crlKey = issue({.subject = "O=Test,CN=CA", .issuer = &ca, .keyUsage = KU_CRL_SIGN});
  const Issued leaf = person();

  SelfCoverTest() { around.know(crlKey); }
};

TEST_F(SelfCoverTest, ListThatCoversItsOwnIssuer_Counts) {
  around.publish({.issuer = &crlKey});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.publish({.issuer = &crlKey, .number = Serial(2), .revoked = {{.serial = leaf}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(SelfCoverTest, RevokedKey_DoesNotVouchForItselfWithANewerList) {
  around.publish({.issuer = &ca, .revoked = {{.serial = crlKey}}});
  around.publish({.issuer = &crlKey, .number = Serial(9)});
  // The CA's own list is the one that counts, and the leaf is not on it.
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.sources.byIssuer.clear();
  around.publish({.issuer = &ca, .revoked = {{.serial = crlKey}, {.serial = leaf}}});
  around.publish({.issuer = &crlKey, .number = Serial(9)});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kRevoked);
  EXPECT_TRUE(has(outcome, Reason::kSignerRevoked));
}

TEST_F(SelfCoverTest, ListThatNamesItsOwnIssuer_SilencesItsKey) {
  around.publish({.issuer = &crlKey, .number = Serial(2)});
  around.publish({.issuer = &crlKey, .number = Serial(1), .revoked = {{.serial = crlKey}}});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.status, Status::kUndetermined);
  const auto silenced = firstFor(outcome, Reason::kSignerUndetermined);
  ASSERT_NE(silenced.signer, nullptr);
  ASSERT_NE(silenced.signer->revocation, nullptr);
  EXPECT_EQ(silenced.signer->blamed, handle(crlKey));
  const auto names = firstFor(*silenced.signer->revocation, Reason::kNamesItsSigner);
  ASSERT_NE(names.signer, nullptr);
  EXPECT_EQ(names.signer->certificate, handle(crlKey));
  around.publish({.issuer = &ca});
  EXPECT_EQ(decide(leaf).status, Status::kGood) << "by another key";
}

TEST_F(SelfCoverTest, ExpiredListThatNamesItsOwnIssuer_SilencesNobody) {
  around.publish({.issuer = &crlKey,
                  .lastUpdate = -hours(48),
                  .nextUpdate = When(-hours(24)),
                  .revoked = {{.serial = crlKey}}});
  around.publish({.issuer = &crlKey, .number = Serial(2)});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
}

TEST_F(SelfCoverTest, SilenceOfAKey_HoldsForListsThatAreFoundLater) {
  const Issued person2 = through({{.fullNames = {"URI:"s + kHere}}});
  around.publishAt(kHere,
                   {.issuer = &crlKey, .number = Serial(2), .revoked = {{.serial = crlKey}}});
  around.publish({.issuer = &crlKey});
  EXPECT_EQ(decide(person2).status, Status::kUndetermined);
}

TEST_F(RevocationCheckTest, StrangersOfTheIssuersName_CountOnceWhateverTheySign) {
  const Issued leaf = person();
  for (int i = 0; i < 4; ++i) {
    const Issued stranger = issueCA("O=Test,CN=CA");
    around.know(stranger);
    for (int number = 1; number <= 6; ++number) {
      around.publish(
          {.issuer = &stranger, .number = Serial(number), .revoked = {{.serial = leaf}}});
    }
  }
  around.publish({.issuer = &ca});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  EXPECT_FALSE(run.fellShort());
}

TEST_F(RevocationCheckTest, TwoIssuersThatCoverEachOther_BothCountByHypothesis) {
  const DistributionPoint byOne{.fullNames = {"URI:"s + kHere}, .crlIssuers = {"dirName:CN=One"}};
  const DistributionPoint byTwo{.fullNames = {"URI:"s + kThere}, .crlIssuers = {"dirName:CN=Two"}};
  const Issued one = issue({.subject = "CN=One",
                            .issuer = &root,
                            .keyUsage = KU_CRL_SIGN,
                            .crlDistributionPoints = {byTwo}});
  const Issued two = issue({.subject = "CN=Two",
                            .issuer = &root,
                            .keyUsage = KU_CRL_SIGN,
                            .crlDistributionPoints = {byOne}});
  around.know(one);
  around.know(two);
  const Issued leaf = through({byOne});
  const Scope here{.fullNames = {"URI:"s + kHere}, .indirect = true};
  const Scope there{.fullNames = {"URI:"s + kThere}, .indirect = true};
  around.publishAt(kHere, {.issuer = &one, .idp = here});
  around.publishAt(kThere, {.issuer = &two, .idp = there});
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.publishAt(kThere, {.issuer = &two,
                            .number = Serial(2),
                            .revoked = {{.serial = one, .certificateIssuer = "O=Test,CN=Root"}},
                            .idp = there});
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
  // What shows that the first is revoked holds only if it is not.
  around.sources.byIssuer.clear();
  const Outcome first = around.decide({one, root}).at(0);
  EXPECT_EQ(first.status, Status::kUndetermined);
  EXPECT_EQ(first.code, X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_TRUE(first.decidedBy.empty());
  EXPECT_FALSE(first.revoked.date);
  EXPECT_FALSE(firstFor(first, Reason::kRestsOnItself).statement.crl.empty());
  EXPECT_FALSE(run.current()->fellShort());
}

// 5.2.4, 6.3.3 (c), (h), (i), (k)

class DeltaTest : public RevocationCheckTest {
 protected:
  const Issued leaf = person({.freshestCRL = {{.fullNames = {"URI:"s + kDeltas}}}});

  RefCertificateRevocationList complete(CRLOptions options = {}) {
    options.issuer = &ca;
    if (!options.number || options.number->hex() == Serial(1).hex()) options.number = Serial(5);
    return around.publish(options);
  }
  CRLOptions delta(int number, int base) {
    return {.issuer = &ca, .number = Serial(number), .deltaBase = Serial(base)};
  }
};

TEST_F(DeltaTest, DeltaAddsAndTakesAway) {
  complete();
  CRLOptions revokes = delta(6, 5);
  revokes.revoked = {{.serial = leaf, .reason = 6}};
  around.publishAt(kDeltas, revokes);
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
  CRLOptions removes = delta(7, 5);
  removes.revoked = {{.serial = leaf, .reason = 8}};
  around.publishAt(kDeltas, removes);
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.scope.useDeltas = false;
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.sources.byIssuer.clear();
  complete({.revoked = {{.serial = leaf}}});
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(DeltaTest, DeltaThatDoesNotUpdateIt_IsSetAside) {
  struct Row {
    const char* what;
    std::function<void(CRLOptions&)> change;
    Reason reason;
  };
  const Issued other = issueCA("O=Test,CN=CA", &root);
  around.know(other);
  const Row rows[] = {
      {"base above", [](CRLOptions& o) { o.deltaBase = Serial(6); }, Reason::kNoBase},
      {"number not above", [](CRLOptions& o) { o.number = Serial(5); }, Reason::kNoBase},
      {"another scope", [](CRLOptions& o) { o.idp = Scope{.onlyUser = true}; }, Reason::kNoBase},
      {"another authority key identifier", [](CRLOptions& o) { o.authorityKeyId = KeyId::Absent; },
       Reason::kNoBase},
      {"another key", [&](CRLOptions& o) { o.issuer = &other; }, Reason::kNoBase},
      {"expired",
       [](CRLOptions& o) {
         o.lastUpdate = -hours(3);
         o.nextUpdate = When(-hours(1));
       },
       Reason::kExpired},
      {"forged", [](CRLOptions& o) { o.badSignature = true; }, Reason::kWrongSignature}};
  for (const Row& row : rows) {
    around.sources.byURI.clear();
    around.sources.byIssuer.clear();
    complete({.revoked = {{.serial = leaf}}});
    CRLOptions options = delta(7, 5);
    options.revoked = {{.serial = leaf, .reason = 8}};
    around.publishAt(kDeltas, options);
    EXPECT_EQ(decide(leaf).status, Status::kGood) << row.what << ", unchanged";
    around.sources.byURI.clear();
    row.change(options);
    around.publishAt(kDeltas, options);
    const Outcome outcome = decide(leaf);
    EXPECT_EQ(outcome.status, Status::kRevoked) << row.what;
    EXPECT_TRUE(has(outcome, row.reason)) << row.what;
  }
}

TEST_F(DeltaTest, ExpiredBase_CountsWithADeltaThatIsCurrent) {
  complete({.lastUpdate = -hours(48), .nextUpdate = When(-hours(24))});
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
  around.publishAt(kDeltas, delta(6, 5));
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.sources.byURI.clear();
  CRLOptions expired = delta(6, 5);
  expired.lastUpdate = -hours(24);
  expired.nextUpdate = When(-hours(2));
  around.publishAt(kDeltas, expired);
  EXPECT_EQ(decide(leaf).status, Status::kUndetermined);
}

TEST_F(DeltaTest, OlderDelta_DoesNotTakeBackWhatANewerBaseSays) {
  complete();
  around.publish({.issuer = &ca, .number = Serial(8), .revoked = {{.serial = leaf}}});
  CRLOptions removes = delta(7, 5);
  removes.revoked = {{.serial = leaf, .reason = 8}};
  around.publishAt(kDeltas, removes);
  EXPECT_EQ(decide(leaf).status, Status::kRevoked);
}

TEST_F(DeltaTest, TwoDeltasOfOneTime_TheHigherNumberDecides) {
  complete();
  const When then = -hours(1);
  CRLOptions revokes = delta(7, 5);
  revokes.lastUpdate = then;
  revokes.revoked = {{.serial = leaf, .reason = 1}};
  CRLOptions older = delta(6, 5);
  older.lastUpdate = then;
  for (const bool first : {false, true}) {
    around.sources.byURI.clear();
    around.publishAt(kDeltas, first ? revokes : older);
    around.publishAt(kDeltas, first ? older : revokes);
    EXPECT_EQ(decide(leaf).status, Status::kRevoked);
  }
}

TEST_F(DeltaTest, DeltaThatTheListAnnounces_IsLookedForWhenTheListIsAuthentic) {
  const Issued plain = person();
  const std::vector<DistributionPoint> where = {{.fullNames = {"URI:"s + kThere}}};
  CRLOptions revokes = delta(6, 5);
  revokes.revoked = {{.serial = plain}};
  around.publishAt(kThere, revokes);
  complete({.freshestCRL = where, .badSignature = true});
  EXPECT_EQ(decide(plain).status, Status::kUndetermined);
  EXPECT_EQ(std::count(around.sources.asked.begin(), around.sources.asked.end(), "URI "s + kThere),
            0);
  complete({.freshestCRL = where});
  EXPECT_EQ(decide(plain).status, Status::kRevoked);
}

// 5.1, 5.2, 5.3

TEST_F(RevocationCheckTest, FormThatIsWrong_MakesAListUnusable) {
  struct Row {
    const char* what;
    CRLOptions options;
    Reason reason;
    int code;
  };
  const Row rows[] = {
      {"unknown critical extension",
       {.rawExtensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}},
       Reason::kUnknownCriticalExtension,
       X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION},
      {"unknown critical extension of another's entry",
       {.revoked = {{.serial = 77,
                     .extensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}}}},
       Reason::kUnknownCriticalExtension,
       X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION},
      {"removal in a complete list",
       {.revoked = {{.serial = 77, .reason = 8}}},
       Reason::kMalformed,
       X509_V_ERR_UNABLE_TO_GET_CRL},
      {"freshestCRL that cannot be read",
       {.rawExtensions = {{.oid = "2.5.29.46", .der = "\x05\0"s}}},
       Reason::kMalformed,
       X509_V_ERR_UNABLE_TO_GET_CRL},
      {"two kinds",
       {.idp = Scope{.onlyUser = true, .onlyCA = true}},
       Reason::kOutOfScope,
       X509_V_ERR_DIFFERENT_CRL_SCOPE},
      {"other kind",
       {.idp = Scope{.onlyCA = true}},
       Reason::kOutOfScope,
       X509_V_ERR_DIFFERENT_CRL_SCOPE},
      {"empty scope", {.idp = Scope{}}, Reason::kMalformed, X509_V_ERR_UNABLE_TO_GET_CRL},
      {"entry of another issuer in a list that is not indirect",
       {.revoked = {{.serial = 77, .certificateIssuer = "CN=Other"}}},
       Reason::kMalformed,
       X509_V_ERR_UNABLE_TO_GET_CRL}};
  const Issued leaf = person();
  for (const Row& row : rows) {
    around.sources.byIssuer.clear();
    CRLOptions options = row.options;
    options.issuer = &ca;
    around.publish(options);
    const Outcome outcome = decide(leaf);
    EXPECT_EQ(outcome.status, Status::kUndetermined) << row.what;
    EXPECT_TRUE(has(outcome, row.reason)) << row.what;
    EXPECT_EQ(outcome.code, row.code) << row.what;
    EXPECT_EQ(outcome.setAside.at(0).detail.empty(),
              row.reason == Reason::kUnknownCriticalExtension);
  }
}

// The failures in the order in which they tell most: a list with each that stands behind in the order is
// offered as well.
TEST_F(RevocationCheckTest, CodeOfSeveralFailures_IsTheMostTelling) {
  const Issued other = issueCA("O=Test,CN=Other", &root);
  around.know(other);
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}}});
  EXPECT_EQ(decide(leaf).code, X509_V_ERR_UNABLE_TO_GET_CRL);
  around.publishAt(kHere, {.issuer = &ca, .lastUpdate = -hours(9), .nextUpdate = When(-hours(8))});
  EXPECT_EQ(decide(leaf).code, X509_V_ERR_CRL_HAS_EXPIRED);
  around.publishAt(
      kHere,
      {.issuer = &ca, .rawExtensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}});
  EXPECT_EQ(decide(leaf).code, X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION);
  around.publishAt(kHere, {.issuer = &other});
  EXPECT_EQ(decide(leaf).code, X509_V_ERR_DIFFERENT_CRL_SCOPE);
  around.publishAt(kHere, {.issuer = &ca, .badSignature = true});
  const Outcome all = decide(leaf);
  EXPECT_EQ(all.code, X509_V_ERR_CRL_SIGNATURE_FAILURE);
  EXPECT_EQ(all.setAside.size(), 4U) << "each once, however often it was looked at";
}

// The evidence.

TEST_F(RevocationCheckTest, ReasonsThatAreLeft_AreToldWithTheListsThatCount) {
  const Issued leaf = through({{.fullNames = {"URI:"s + kHere}, .reasons = 0x60}});
  const auto partial = around.publishAt(kHere, {.issuer = &ca});
  const Outcome left = decide(leaf);
  EXPECT_EQ(left.status, Status::kUndetermined);
  EXPECT_EQ(left.uncoveredReasons, kAllReasons & ~0x60U);
  EXPECT_TRUE(left.decidedBy.empty());
  ASSERT_EQ(left.covering.size(), 1U);
  EXPECT_EQ(left.covering[0].crl->native(), partial->native());

  around.publish({.issuer = &ca, .number = Serial(2)});
  const Outcome good = decide(leaf);
  EXPECT_EQ(good.status, Status::kGood);
  EXPECT_EQ(good.uncoveredReasons, 0U);
  EXPECT_TRUE(good.covering.empty());
}

TEST_F(RevocationCheckTest, ListsThatAreSetAside_AreThereThemselves) {
  const Issued leaf = person();
  const auto expired =
      around.publish({.issuer = &ca, .lastUpdate = -hours(9), .nextUpdate = When(-hours(8))});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(firstFor(outcome, Reason::kExpired).statement.crl->native(), expired->native());
  EXPECT_EQ(firstFor(outcome, Reason::kExpired).signer, nullptr);
}

// However many responders a certificate names, the failure of the lists stays what it is.
TEST_F(RevocationCheckTest, RespondersWithoutAnAnswer_LeaveRoomForTheLists) {
  std::string access = "OCSP;URI:http://one.test/";
  for (std::size_t i = 1; i < 2 * Outcome::kMaximumSetAside; ++i) {
    access += ",OCSP;URI:http://" + std::to_string(i) + ".test/";
  }
  const Issued leaf = issue({.subject = "O=Test,CN=Person",
                             .issuer = &ca,
                             .extensions = {{"authorityInfoAccess", access}}});
  around.publish({.issuer = &ca, .lastUpdate = -hours(9), .nextUpdate = When(-hours(8))});
  const Outcome outcome = decide(leaf);
  EXPECT_EQ(outcome.code, X509_V_ERR_CRL_HAS_EXPIRED);
  EXPECT_TRUE(has(outcome, Reason::kExpired));
  const auto answers =
      std::count_if(outcome.setAside.begin(), outcome.setAside.end(),
                    [](const auto& one) { return one.reason == Reason::kNoAnswer; });
  EXPECT_EQ(static_cast<std::size_t>(answers), Outcome::kMaximumSetAside / 2);
}

// The settings.

TEST_F(RevocationCheckTest, LeafAlone_OnlyTheLeafAndWhoSpeaksForIt) {
  around.scope.wholePath = false;
  const Issued leaf = person();
  around.publish({.issuer = &ca});
  const std::vector<Outcome> outcomes = around.decide({leaf, ca, root});
  ASSERT_EQ(outcomes.size(), 1U);
  EXPECT_EQ(outcomes[0].status, Status::kGood);
  EXPECT_EQ(around.sources.asked, std::vector<std::string>{"CRLs CN=CA,O=Test"});
}

TEST_F(RevocationCheckTest, WeakSignature_DoesNotCountAboveItsLevel) {
  const Issued leaf = person();
  around.publish({.issuer = &ca});
  around.settings.securityLevel = 3;
  EXPECT_EQ(decide(leaf).status, Status::kGood);
  around.settings.securityLevel = 4;
  const std::vector<Outcome> outcomes = around.decide({leaf, ca, root});
  EXPECT_EQ(outcomes[1].status, Status::kUndetermined);
  EXPECT_TRUE(has(outcomes[1], Reason::kTooWeak));
  EXPECT_EQ(outcomes[1].code, X509_V_ERR_CRL_SIGNATURE_FAILURE);
}

TEST_F(RevocationCheckTest, AnchorAlone_NothingIsChecked) {
  EXPECT_TRUE(around.decide({root}).empty());
  EXPECT_TRUE(around.decide({}).empty());
}

}  // namespace
}  // namespace Velantrix::Test
