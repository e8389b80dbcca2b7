#include "support/LogCapture.h"
#include "support/Verdicts.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

constexpr char kReasonOid[] = "2.5.29.21";

class CRLContainerTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  Verifier verifier{world.store, handle(leaf), false};
  OpenContainer container{verifier};
  LogCapture log;

  CRLContainer::Entry entryOf(const CRLOptions& options, unsigned int reasons = kAllReasons) {
    return makeEntry(handle(leaf), crlHandle(options), handle(root), reasons);
  }
  CRLContainer::Entry listing(int reason, unsigned int reasons = kAllReasons) {
    return entryOf({.issuer = &root, .revoked = {{.serial = leaf, .reason = reason}}}, reasons);
  }
  CRLContainer::Entry clean(unsigned int reasons = kAllReasons) {
    return entryOf({.issuer = &root}, reasons);
  }
};

TEST_F(CRLContainerTest, Constructed_EverythingIsZero) {
  EXPECT_TRUE(container.empty());
  EXPECT_FALSE(container.hasDeltaCRL);
  EXPECT_EQ(container.chainState, 0);
  EXPECT_EQ(container.collectedReasons, 0U);
  EXPECT_EQ(OpenContainer::ChainUnknown, 0);
  EXPECT_EQ(OpenContainer::ChainIncomplete, 1);
  EXPECT_EQ(OpenContainer::ChainComplete, 2);
}

TEST_F(CRLContainerTest, Empty_GivesNoCRLAndNoVerdict) {
  int reason = 77;
  EXPECT_TRUE(container.getCRL().empty());
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
  EXPECT_EQ(reason, 77);
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.chainState, OpenContainer::ChainUnknown);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(CRLContainerTest, Add_KeepsTheOrderWhateverTheScore) {
  const CRLContainer::Entry first = clean();
  CRLContainer::Entry second = clean();
  second.score = 0x100;
  container.add(first);
  container.add(second);
  ASSERT_EQ(container.entries.size(), 2U);
  EXPECT_EQ(container.getCRL(), first.crl);
  EXPECT_EQ(container.getCRL(), second.crl);
  EXPECT_TRUE(container.getCRL().empty());
  EXPECT_TRUE(container.empty());
}

TEST_F(CRLContainerTest, Add_StoresTheNewScore) {
  CRLContainer::Entry entry = clean();
  entry.score = 0x24;
  container.add(entry);
  EXPECT_EQ(container.entries.front().score, 0x24U | 0x80U | 0x18U);
}

TEST_F(CRLContainerTest, GetCRL_TellsTheVerifierScoreAndIssuer) {
  CRLContainer::Entry entry = clean();
  entry.score = 0x20;
  container.add(entry);
  container.getCRL();
  EXPECT_EQ(verifier.currentCRLScore(), 0x20U | 0x80U | 0x18U);
  EXPECT_EQ(verifier.currentIssuer(), root.get());
}

TEST_F(CRLContainerTest, GetCRL_OfNothingLeavesTheVerifierAsItWas) {
  verifier.setCurrentCRL(5, handle(root), 6);
  container.getCRL();
  EXPECT_EQ(verifier.currentCRLScore(), 5U);
  EXPECT_EQ(verifier.currentIssuer(), root.get());
  EXPECT_EQ(verifier.currentReasons(), 6U);
}

TEST_F(CRLContainerTest, TwoCandidates_FirstReportsItsReasonsTheSecondBoth) {
  container.add(clean(0x0006));
  container.add(clean(0x0060));
  container.getCRL();
  EXPECT_EQ(verifier.currentReasons(), 0x0006U);
  EXPECT_EQ(container.collectedReasons, 0x0006U);
  container.getCRL();
  EXPECT_EQ(verifier.currentReasons(), 0x0066U);
  EXPECT_EQ(container.collectedReasons, 0x0066U);
}

TEST_F(CRLContainerTest, TwoCandidatesWithADelta_FirstReportsTheMarkToo) {
  container.add(clean(0x0006));
  container.add(entryOf({.issuer = &root, .number = Serial(2), .deltaBase = Serial(1)}, 0x0060));
  container.getCRL();
  EXPECT_EQ(verifier.currentReasons(), 0x4006U);
  EXPECT_EQ(container.collectedReasons, 0x0006U);
  container.getCRL();
  EXPECT_EQ(verifier.currentReasons(), 0x0066U);
}

TEST_F(CRLContainerTest, ThreeCandidates_MiddleReportsOnlyItsOwnReasons) {
  container.add(clean(0x0002));
  container.add(clean(0x0004));
  container.add(clean(0x0008));
  container.getCRL();
  container.getCRL();
  EXPECT_EQ(verifier.currentReasons(), 0x0004U);
  container.getCRL();
  EXPECT_EQ(verifier.currentReasons(), 0x000eU);
}

TEST_F(CRLContainerTest, NotListed_GoodAndTheReasonUntouched) {
  container.add(entryOf({.issuer = &root, .revoked = {{.serial = Serial("7F7F7F"), .reason = 1}}}));
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), 0);
  EXPECT_EQ(reason, 0);
}

struct ReasonRow {
  const char* name;
  Revoked entry;
  int verdict;
  int reason;
};

TEST_F(CRLContainerTest, IsRevoked_ByTheReasonOfTheEntry) {
  const ReasonRow rows[] = {
      {"no reason extension", {.serial = leaf}, kRevoked, -1},
      {"unspecified", {.serial = leaf, .reason = 0}, 0, 0},
      {"keyCompromise", {.serial = leaf, .reason = 1}, kRevoked, 1},
      {"certificateHold", {.serial = leaf, .reason = 6}, kRevoked, 6},
      {"removeFromCRL in a base CRL", {.serial = leaf, .reason = 8}, kRevoked, 8},
      {"unknown reason", {.serial = leaf, .reason = 99}, kRevoked, 99},
      {"more than an int holds",
       {.serial = leaf, .extensions = {{kReasonOid, false, "\x0a\x05\x01\x00\x00\x00\x00"s}}},
       kRevoked,
       -1},
      {"less than an int holds",
       {.serial = leaf, .extensions = {{kReasonOid, false, "\x0a\x05\xfe\x00\x00\x00\x00"s}}},
       kRevoked,
       -1},
      {"more than 64 bits",
       {.serial = leaf,
        .extensions = {{kReasonOid, false, "\x0a\x09\x01\x00\x00\x00\x00\x00\x00\x00\x00"s}}},
       kRevoked,
       -1},
      {"negative",
       {.serial = leaf, .extensions = {{kReasonOid, false, "\x0a\x01\xfe"s}}},
       kRevoked,
       -2},
      {"cannot be decoded",
       {.serial = leaf, .extensions = {{kReasonOid, false, "\x0a\x02"s}}},
       kRevoked,
       -1},
      {"stands there twice",
       {.serial = leaf, .reason = 0, .extensions = {{kReasonOid, false, "\x0a\x01\x00"s}}},
       kRevoked,
       -1},
  };
  for (const ReasonRow& row : rows) {
    SCOPED_TRACE(row.name);
    container.clear();
    container.add(entryOf({.issuer = &root, .revoked = {row.entry}}));
    ERR_clear_error();  // OpenSSL complained when it read the CRL back
    int reason = 0;
    EXPECT_EQ(container.isRevoked(reason), row.verdict);
    EXPECT_EQ(reason, row.reason);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

TEST_F(CRLContainerTest, LaterHit_OverwritesAnEarlierOne) {
  container.add(listing(1));
  container.add(listing(0));
  container.add(clean());
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), 0);
  EXPECT_EQ(reason, 0);
  container.clear();
  container.add(listing(0));
  container.add(listing(4));
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
  EXPECT_EQ(reason, 4);
}

TEST_F(CRLContainerTest, ReasonsNotCovered_NoVerdictEvenWhenListed) {
  container.add(listing(1, 0x0006));
  container.add(clean(0x0018));
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
  EXPECT_EQ(reason, 1);
}

TEST_F(CRLContainerTest, ReasonsTogetherCovered_Verdict) {
  container.add(listing(1, 0x0006));
  container.add(clean(0x8079));
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
}

TEST_F(CRLContainerTest, MoreBitsThanAllReasons_IsNotAllReasons) {
  container.add(clean(0x80ff));
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
}

TEST_F(CRLContainerTest, EntryOfAnotherIssuerInAnIndirectCRL_CountsForThatIssuer) {
  const Issued other = issueCA("O=Test,CN=Other");
  const auto indirect = [&](const std::string& issuer) {
    return entryOf({.issuer = &other,
                    .revoked = {{.serial = leaf, .reason = 1, .certificateIssuer = issuer}},
                    .idp = Scope{.indirect = true}});
  };
  int reason = 0;
  container.add(indirect("O=Test,CN=Root"));
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
  container.clear();
  reason = 0;
  container.add(indirect("O=Test,CN=Somebody"));
  EXPECT_EQ(container.isRevoked(reason), 0);
}

TEST_F(CRLContainerTest, IsRevoked_LeavesTheListAndGetCRLConsumesIt) {
  container.add(listing(1));
  int reason = 0;
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
  EXPECT_FALSE(container.empty());
  EXPECT_FALSE(container.getCRL().empty());
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
}

TEST_F(CRLContainerTest, Clear_IsTheConstructedStateAgain) {
  container.add(clean());
  container.add(entryOf({.issuer = &root, .number = Serial(9), .deltaBase = Serial(9)}));
  EXPECT_TRUE(container.getCRL().empty());
  container.chainState = OpenContainer::ChainComplete;
  container.getCRL();
  EXPECT_NE(container.collectedReasons, 0U);
  container.clear();
  EXPECT_TRUE(container.empty());
  EXPECT_FALSE(container.hasDeltaCRL);
  EXPECT_EQ(container.chainState, OpenContainer::ChainUnknown);
  EXPECT_EQ(container.collectedReasons, 0U);
}

TEST_F(CRLContainerTest, EmptyCRLHandle_StopsTheProcess) {
  CRLContainer::Entry entry = clean();
  entry.crl = RefObject();
  EXPECT_DEATH(container.add(entry), "px != 0");
}

}  // namespace
}  // namespace Velantrix::Test
