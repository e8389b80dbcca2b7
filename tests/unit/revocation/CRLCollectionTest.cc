#include "revocation/CRLCollection.h"
#include "unit/revocation/Surroundings.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::PKX509::Revocation::CRLCandidate;
using Crypto::PKX509::Revocation::CRLCollection;
using Asked = std::vector<std::string>;
using IDP = Velantrix::Test::IssuingDistributionPoint;

class CRLCollectionTest : public testing::Test {
 protected:
  const Issued ca = issueCA("O=Test,CN=CA");
  MemorySources sources;

  Issued with(const std::vector<DistributionPoint>& points,
              const std::vector<DistributionPoint>& freshest = {}) {
    return issue({.issuer = &ca, .crlDistributionPoints = points, .freshestCRL = freshest});
  }
  static DistributionPoint at(const char* uri, int reasons = kAbsent) {
    return {.fullNames = {"URI:"s + uri}, .reasons = reasons};
  }
  void publishAt(const char* uri, CRLOptions options) {
    options.issuer = &ca;
    sources.byURI.emplace(uri, crlHandle(options));
  }
  CRLCollection collection(const Issued& certificate, bool useDeltas = true) {
    return CRLCollection(handle(certificate), sources, Time::now(), useDeltas);
  }
};

TEST_F(CRLCollectionTest, Places_AreAskedInTheirOrderAndOnce) {
  const Issued certificate = with({at(kHere), at(kThere), at(kHere)}, {at(kDeltas)});
  CRLCollection crls = collection(certificate);
  crls.gatherFromPoints();
  EXPECT_EQ(sources.asked, (Asked{"URI "s + kHere, "URI "s + kThere, "URI "s + kDeltas}));
  crls.gatherFromPoints();
  crls.gatherByIssuer();
  crls.gatherByIssuer();
  EXPECT_EQ(sources.asked,
            (Asked{"URI "s + kHere, "URI "s + kThere, "URI "s + kDeltas, "CRLs CN=CA,O=Test"}));
}

TEST_F(CRLCollectionTest, WithoutDeltas_NobodyIsAskedForThemAndNoneCounts) {
  const Issued certificate = with({at(kHere)}, {at(kDeltas)});
  publishAt(kHere, {.freshestCRL = {at(kThere)}});
  publishAt(kHere, {.number = Serial(2), .deltaBase = Serial(1)});
  CRLCollection crls = collection(certificate, false);
  crls.gatherFromPoints();
  for (CRLCandidate& candidate : crls.candidates()) candidate.signer = handle(ca);
  crls.gatherAnnouncedDeltas();
  EXPECT_EQ(sources.asked, Asked{"URI "s + kHere});
  ASSERT_EQ(crls.candidates().size(), 2U);
  EXPECT_FALSE(crls.candidates().front().refused);
  EXPECT_EQ(crls.candidates().back().refused, Reason::kOutOfScope);
  EXPECT_EQ(crls.candidates().back().detail, "delta CRLs are not used");
}

TEST_F(CRLCollectionTest, CompleteListThatCounts_SaysWhereItsDeltasAre) {
  publishAt(kHere, {.freshestCRL = {at(kThere)}});
  publishAt(kThere, {.number = Serial(2), .deltaBase = Serial(1), .freshestCRL = {at(kDeltas)}});
  const Issued certificate = with({at(kHere)});
  CRLCollection crls = collection(certificate);
  crls.gatherFromPoints();
  crls.gatherAnnouncedDeltas();
  EXPECT_EQ(sources.asked, Asked{"URI "s + kHere}) << "nobody has signed it yet";
  for (int i = 0; i < 2; ++i) {
    for (CRLCandidate& candidate : crls.candidates()) candidate.signer = handle(ca);
    crls.gatherAnnouncedDeltas();
    EXPECT_EQ(sources.asked, (Asked{"URI "s + kHere, "URI "s + kThere}));
  }
  EXPECT_EQ(crls.candidates().size(), 2U);
}

TEST_F(CRLCollectionTest, EqualLists_AreOne) {
  const CRLOptions options{.issuer = &ca};
  const std::string encoded = der(makeCRL(options).get());
  for (const char* const uri : {kHere, kThere}) {
    sources.byURI.emplace(uri, handle(crlFromDer(encoded)));
  }
  sources.from = {Provenance::Kind::kNetwork, "place"};
  CRLCollection crls = collection(with({at(kHere), at(kThere)}));
  crls.gatherFromPoints();
  ASSERT_EQ(crls.candidates().size(), 1U);
  const CRLCandidate& only = crls.candidates().front();
  ASSERT_TRUE(only.uri);
  EXPECT_EQ(only.uri->asString(), kHere);
  EXPECT_EQ(only.from.kind, Provenance::Kind::kNetwork);
  EXPECT_EQ(only.from.place, "place");
}

// 6.3.3, the last paragraph: the same list at a point for some reasons, and as that of the issuer.
TEST_F(CRLCollectionTest, ListAtAPointUnderTheIssuersName_CountsForAllReasonsAsTheIssuers) {
  sources.byIssuer.push_back(crlHandle({.issuer = &ca}));
  CRLCollection crls = collection(with({{.fullNames = {"dirName:O=Test,CN=CA"}, .reasons = 0x60}}));
  crls.gatherFromPoints();
  ASSERT_EQ(crls.candidates().size(), 1U);
  EXPECT_EQ(crls.candidates().front().interim_reasons_mask, 0x60U);
  crls.gatherByIssuer();
  ASSERT_EQ(crls.candidates().size(), 1U);
  EXPECT_EQ(crls.candidates().front().interim_reasons_mask, kAllReasons);
}

TEST_F(CRLCollectionTest, ListAtAPointOnly_CountsForTheReasonsOfThePoint) {
  publishAt(kHere, {});
  CRLCollection crls = collection(with({at(kHere, 0x60)}));
  crls.gatherFromPoints();
  crls.gatherByIssuer();
  ASSERT_EQ(crls.candidates().size(), 1U);
  EXPECT_EQ(crls.candidates().front().interim_reasons_mask, 0x60U);
}

TEST_F(CRLCollectionTest, SourceThatMayHaveMore_IsTold) {
  const Issued certificate = with({at(kHere), at(kThere)});
  CRLCollection whole = collection(certificate);
  whole.gatherFromPoints();
  EXPECT_FALSE(whole.wasCut());
  sources.cut = {"URI "s + kHere};
  CRLCollection cut = collection(certificate);
  cut.gatherFromPoints();
  EXPECT_TRUE(cut.wasCut());
}

TEST_F(CRLCollectionTest, ProcessorTimeUsedUp_NobodyIsAsked) {
  const VerificationRun run(nullptr, {.processorTime = std::chrono::nanoseconds(0)});
  CRLCollection crls = collection(with({at(kHere)}, {at(kDeltas)}));
  crls.gatherFromPoints();
  crls.gatherByIssuer();
  EXPECT_TRUE(sources.asked.empty());
  EXPECT_TRUE(run.fellShort());
}

}  // namespace
}  // namespace Velantrix::Test
