#include "revocation/Standings.h"
#include "unit/revocation/Surroundings.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::Revocation::By;
using Crypto::PKX509::Revocation::Path;
using Crypto::PKX509::Revocation::Ruling;
using Crypto::PKX509::Revocation::Standing;
using Crypto::PKX509::Revocation::Standings;

// How certificates are decided is told by the test.
class StandingsTest : public testing::Test {
 protected:
  const VerificationRun run{nullptr};
  const Issued issuedRoot = issueCA("CN=Root");
  const Issued issuedCA = issueCA("CN=CA", &issuedRoot);
  const RefCertificate root = handle(issuedRoot);
  const RefCertificate ca = handle(issuedCA);
  const RefCertificate leaf = handle(issue({.subject = "CN=Leaf", .issuer = &issuedCA}));
  const RefCertificate signer = handle(issue({.subject = "CN=Signer", .issuer = &issuedCA}));
  const Path main{leaf, ca, root};
  const Path signers{signer, ca, root};
  MemoryPaths paths;
  Standings standings = made(true);
  Standings leafAlone = made(false);

  std::vector<std::pair<RefCertificate, By>> asked;
  std::function<Ruling(const RefCertificate&)> rule = [](const RefCertificate&) {
    return ruling(Status::kGood);
  };

  StandingsTest() {
    paths.given = signers;
    standings.verifying(main);
    leafAlone.verifying(main);
  }

  static Ruling ruling(Status status) {
    Ruling made;
    made.outcome.status = status;
    return made;
  }
  Standings made(bool wholePath) {
    return Standings(paths, wholePath, [this](const RefCertificate& one, const Path& path, By by) {
      EXPECT_EQ(path.front(), one);
      asked.emplace_back(one, by);
      return rule(one);
    });
  }
  std::size_t timesAsked(const RefCertificate& one) const {
    return static_cast<std::size_t>(std::count_if(
        asked.begin(), asked.end(), [&](const auto& question) { return question.first == one; }));
  }
};

TEST_F(StandingsTest, Certificate_IsDecidedOnceForAllWhoAskForTheSame) {
  standings.decide(leaf, main, By::kAll);
  standings.decide(leaf, main, By::kAll);
  EXPECT_EQ(timesAsked(leaf), 1U);
  standings.decide(leaf, main, By::kCRLsOnly);
  EXPECT_EQ(timesAsked(leaf), 2U);
  EXPECT_EQ(asked.back().second, By::kCRLsOnly);
}

TEST_F(StandingsTest, Signer_IsBelievedWhenNobodyOnItsPathIsRevoked) {
  const struct {
    Status status;
    std::optional<Reason> refused;
  } rows[] = {{Status::kGood, std::nullopt},
              {Status::kNotNeeded, std::nullopt},
              {Status::kRevoked, Reason::kSignerRevoked},
              {Status::kUndetermined, Reason::kSignerUndetermined}};
  for (const RefCertificate& one : {signer, ca}) {
    for (const auto& row : rows) {
      Standings fresh = made(true);
      rule = [&](const RefCertificate& certificate) {
        return ruling(certificate == one ? row.status : Status::kGood);
      };
      const Standing standing = fresh.of(signers, By::kAll);
      EXPECT_EQ(standing.refused, row.refused);
      ASSERT_EQ(standing.about != nullptr, row.refused.has_value());
      if (standing.about == nullptr) continue;
      EXPECT_EQ(standing.about->certificate, signer);
      EXPECT_EQ(standing.about->blamed, one);
      EXPECT_EQ(standing.about->revocation->status, row.status);
      EXPECT_EQ(fresh.of(signers, By::kAll).about->revocation, standing.about->revocation)
          << "it is shared";
    }
  }
}

TEST_F(StandingsTest, SignerWithoutAPath_IsToldWithWhatIsWrongWithIt) {
  const RefCertificate stranger = handle(issueCA("CN=Stranger"));
  paths.anchor = root;
  EXPECT_TRUE(standings.pathOf(stranger, main).empty());
  EXPECT_TRUE(standings.pathOf(handle(issueCA("CN=Other")), main).empty());
  const Standing standing = standings.withoutPath(stranger);
  EXPECT_EQ(standing.refused, Reason::kSignerNotValid);
  EXPECT_EQ(standing.about->certificate, stranger);
  ASSERT_TRUE(standing.about->objection);
  EXPECT_EQ(standing.about->objection->code, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  EXPECT_FALSE(standings.withoutPath(leaf).about->objection) << "it was not looked for";
}

TEST_F(StandingsTest, AboveTheSigner_EverythingDecides) {
  EXPECT_FALSE(standings.of(signers, By::kCRLsOnly).refused);
  ASSERT_EQ(asked.size(), 2U);
  EXPECT_EQ(asked[0].first, ca) << "from above";
  EXPECT_EQ(asked[0].second, By::kAll);
  EXPECT_EQ(asked[1].first, signer);
  EXPECT_EQ(asked[1].second, By::kCRLsOnly);
}

TEST_F(StandingsTest, TrustAnchor_IsNotAsked) {
  EXPECT_FALSE(standings.of({root}, By::kAll).refused);
  EXPECT_FALSE(leafAlone.of({handle(issueCA("CN=Root"))}, By::kAll).refused)
      << "by another certificate";
  EXPECT_TRUE(asked.empty());
}

TEST_F(StandingsTest, LeafAlone_TheSignerAloneUnlessItStandsOnThePath) {
  EXPECT_FALSE(leafAlone.of(signers, By::kAll).refused);
  EXPECT_EQ(timesAsked(signer), 1U);
  EXPECT_EQ(timesAsked(ca), 0U);
  EXPECT_FALSE(leafAlone.of({ca, root}, By::kAll).refused);
  EXPECT_EQ(timesAsked(ca), 0U);
}

// Hypotheses.

TEST_F(StandingsTest, OneThatIsBeingDecided_DoesNotCountForItself) {
  bool assumed = false;
  rule = [&](const RefCertificate& certificate) {
    if (certificate != leaf) return ruling(Status::kGood);
    EXPECT_FALSE(standings.assumeUnrevoked()) << "nobody has asked";
    EXPECT_EQ(standings.of({leaf, ca, root}, By::kAll).refused, Reason::kRestsOnItself);
    assumed = standings.assumeUnrevoked();
    const Standing standing = standings.of({leaf, ca, root}, By::kAll);
    EXPECT_FALSE(standing.refused);
    EXPECT_EQ(standing.restsOn.count(leaf->native()), 1U);
    EXPECT_FALSE(standings.assumeUnrevoked()) << "once is enough";
    Ruling made = ruling(Status::kGood);
    made.restsOn = {leaf->native(), ca->native()};
    return made;
  };
  const Ruling decided = standings.decide(leaf, main, By::kAll);
  EXPECT_TRUE(assumed);
  EXPECT_EQ(decided.restsOn.count(leaf->native()), 0U) << "it is decided now";
  EXPECT_EQ(decided.restsOn.count(ca->native()), 1U);
}

TEST_F(StandingsTest, WhatRestsOnAHypothesis_SaysSoUpwards) {
  rule = [&](const RefCertificate& certificate) {
    Ruling made = ruling(Status::kGood);
    made.restsOn = {certificate == ca ? root->native() : leaf->native()};
    return made;
  };
  const Standing standing = standings.of(signers, By::kAll);
  EXPECT_EQ(standing.restsOn.count(root->native()), 1U);
  EXPECT_EQ(standing.restsOn.count(leaf->native()), 1U);
}

TEST_F(StandingsTest, DecidedForTheSakeOfAnother_IsDecidedAnewOnlyWhereItAskedBack) {
  bool askBack = true;
  rule = [&](const RefCertificate& certificate) {
    if (certificate == leaf) standings.of(signers, By::kAll);
    if (certificate == signer && askBack) standings.of({leaf, ca, root}, By::kAll);
    return ruling(Status::kGood);
  };
  standings.decide(leaf, main, By::kAll);
  standings.decide(leaf, main, By::kAll);
  EXPECT_EQ(timesAsked(leaf), 1U) << "it is bound to nobody";
  EXPECT_EQ(timesAsked(ca), 1U);
  EXPECT_EQ(timesAsked(signer), 1U);
  askBack = false;
  standings.of(signers, By::kAll);
  standings.of(signers, By::kAll);
  EXPECT_EQ(timesAsked(signer), 2U) << "what it was asked first held inside only";
}

TEST_F(StandingsTest, DecisionThatThrows_IsOver) {
  rule = [](const RefCertificate&) -> Ruling { throw std::runtime_error("no"); };
  EXPECT_THROW(standings.decide(leaf, main, By::kAll), std::runtime_error);
  rule = [](const RefCertificate&) { return ruling(Status::kRevoked); };
  EXPECT_EQ(standings.of({leaf, ca, root}, By::kAll).refused, Reason::kSignerRevoked);
}

// Paths.

TEST_F(StandingsTest, PathOfASigner_IsBuiltOnceUnlessItStandsOnAnother) {
  const Path other{ca, root};
  EXPECT_EQ(standings.pathOf(ca, {}), (Path{ca, root})) << "on the path that is verified";
  EXPECT_EQ(standings.pathOf(signer, signers), signers) << "on the path of the subject";
  EXPECT_EQ(paths.built, 0);
  EXPECT_EQ(standings.pathOf(signer, other), signers);
  EXPECT_EQ(standings.pathOf(signer, other), signers);
  EXPECT_EQ(paths.built, 1);
}

TEST_F(StandingsTest, ExceptionThatWasParked_IsThrownOn) {
  paths.parks = true;
  EXPECT_THROW(standings.pathOf(signer, {}), std::runtime_error);
}

TEST_F(StandingsTest, Settled_WhenNothingHasToBeFoundOut) {
  EXPECT_TRUE(standings.isSettled(signer, signers));
  EXPECT_FALSE(standings.isSettled(signer, {}));
  EXPECT_FALSE(standings.isSettled(ca, {}));
  standings.decide(ca, {ca, root}, By::kCRLsOnly);
  EXPECT_FALSE(standings.isSettled(ca, {}));
  standings.decide(ca, {ca, root}, By::kAll);
  EXPECT_TRUE(standings.isSettled(ca, {}));
  EXPECT_TRUE(standings.isSettled(root, {}));

  standings.pathOf(signer, {});
  EXPECT_FALSE(standings.isSettled(signer, {}));
  standings.decide(signer, signers, By::kAll);
  EXPECT_TRUE(standings.isSettled(signer, {}));
}

}  // namespace
}  // namespace Velantrix::Test
