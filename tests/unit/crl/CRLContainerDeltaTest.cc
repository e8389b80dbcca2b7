#include "support/LogCapture.h"
#include "support/Verdicts.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using std::chrono::hours;

constexpr char kNoBase[] = "Could not find Base CRL";

class CRLContainerDeltaTest : public testing::Test {
 protected:
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  Verifier verifier{world.store, handle(leaf), false};
  OpenContainer container{verifier};
  LogCapture log;
  int reason = 0;

  void add(const CRLOptions& options, unsigned int reasons = kAllReasons) {
    container.add(makeEntry(handle(leaf), crlHandle(options), handle(root), reasons));
  }
  // A reason of -2 leaves the leaf out of the list.
  std::vector<Revoked> list(int code) {
    if (code == -2) return {};
    return {{.serial = leaf, .reason = code}};
  }
  void addBase(int code, std::optional<Serial> number = Serial(5)) {
    add({.issuer = &root, .lastUpdate = hours(-100), .number = number, .revoked = list(code)});
  }
  void addDelta(int code, When lastUpdate = hours(-2), Serial base = Serial(5)) {
    add({.issuer = &root,
         .lastUpdate = lastUpdate,
         .number = Serial(6),
         .deltaBase = base,
         .revoked = list(code)});
  }
};

struct MergeRow {
  const char* name;
  int base;
  int delta;
  int verdict;
  int reason;
};

TEST_F(CRLContainerDeltaTest, BaseAndDelta_TogetherGiveTheVerdict) {
  const MergeRow rows[] = {
      {"neither lists it", -2, -2, 0, 0},
      {"base revokes, delta is silent", 1, -2, kRevoked, 1},
      {"base revokes, delta removes it", 1, 8, 0, 0},
      {"base revokes without a reason, delta removes it", -1, 8, 0, 0},
      {"only the delta revokes", -2, 1, kRevoked, 1},
      {"only the delta revokes, without a reason", -2, -1, kRevoked, -1},
      {"only the delta lists it, unspecified", -2, 0, 0, 0},
      {"only the delta lists it, unknown reason", -2, 99, kRevoked, 99},
      {"delta changes the reason", 6, 1, kRevoked, 1},
      {"delta changes the reason to unspecified", 6, 0, 0, 0},
      {"delta removes what the base does not list", -2, 8, 0, 0},
  };
  for (const bool deltaFirst : {false, true}) {
    for (const MergeRow& row : rows) {
      SCOPED_TRACE(std::string(row.name) + (deltaFirst ? ", delta added first" : ""));
      container.clear();
      reason = 0;
      if (deltaFirst) addDelta(row.delta);
      addBase(row.base);
      if (!deltaFirst) addDelta(row.delta);
      EXPECT_EQ(container.isRevoked(reason), row.verdict);
      EXPECT_EQ(reason, row.reason);
    }
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(CRLContainerDeltaTest, SeveralDeltas_TheNewestThatListsItDecides) {
  addBase(-2);
  addDelta(8, hours(-1));
  addDelta(1, hours(-3));
  addDelta(4, hours(-2));
  EXPECT_EQ(container.isRevoked(reason), 0);
  container.clear();
  reason = 0;
  addBase(1);
  addDelta(-2, hours(-1));
  addDelta(4, hours(-2));
  addDelta(8, hours(-3));
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
  EXPECT_EQ(reason, 4);
}

TEST_F(CRLContainerDeltaTest, SameLastUpdate_OnlyTheFirstAddedIsConsulted) {
  const When same = When::at(When(hours(-2)).time());
  addBase(-2);
  addDelta(-2, same);
  addDelta(1, same);
  EXPECT_EQ(container.isRevoked(reason), 0);
  container.clear();
  addBase(-2);
  addDelta(1, same);
  addDelta(8, same);
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
}

TEST_F(CRLContainerDeltaTest, SameLastUpdate_ReasonsOfTheSecondDoNotCount) {
  const When same = When::at(When(hours(-2)).time());
  const CRLOptions delta{.issuer = &root, .lastUpdate = same, .deltaBase = Serial(1)};
  add({.issuer = &root}, 0x0006);
  add(delta, 0x0018);
  add(delta, 0x8061);
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
  container.clear();
  add({.issuer = &root}, 0x0006);
  add(delta, 0x8079);
  EXPECT_EQ(container.isRevoked(reason), 0);
}

TEST_F(CRLContainerDeltaTest, Sorter_IsAnOrderByLastUpdate) {
  addDelta(-2, hours(-3));
  addDelta(-2, hours(-1));
  const DeltaCrlSorter before;
  const CRLContainer::Entry& old = container.entries.front();
  const CRLContainer::Entry& recent = container.entries.back();
  EXPECT_TRUE(before(old, recent));
  EXPECT_FALSE(before(recent, old));
  EXPECT_FALSE(before(old, old));
}

TEST_F(CRLContainerDeltaTest, BaseTooOld_OneLineAndNothingIsHandedOut) {
  addBase(1, Serial(4));
  addDelta(-2);
  EXPECT_TRUE(container.getCRL().empty());
  EXPECT_EQ(container.entries.size(), 2U);
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
  EXPECT_EQ(reason, 0);
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.chainState, OpenContainer::ChainIncomplete);
  EXPECT_EQ(log.text(), std::string("7 ") + kNoBase + "\n");
}

TEST_F(CRLContainerDeltaTest, DeltaAlone_HasNoBase) {
  addDelta(1);
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
  EXPECT_EQ(log.count(kNoBase), 1U);
}

TEST_F(CRLContainerDeltaTest, BaseNumber_DecidesWhetherTheChainIsComplete) {
  struct Row {
    const char* name;
    std::optional<Serial> number;
    bool complete;
  };
  const Row rows[] = {
      {"one less", Serial("100"), false},     {"the same", Serial("101"), true},
      {"one more", Serial("102"), true},      {"compared as numbers", Serial("0FF"), false},
      {"much longer", Serial("10000"), true}, {"negative", Serial("-200"), false},
      {"none", std::nullopt, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    container.clear();
    addBase(-2, row.number);
    addDelta(-2, hours(-1), Serial("101"));
    EXPECT_EQ(container.isDeltaCRLChainComplete(), row.complete);
  }
}

TEST_F(CRLContainerDeltaTest, DeltaAsBase_DoesNotCount) {
  addDelta(-2, hours(-2), Serial(5));
  addDelta(-2, hours(-1), Serial(6));  // the first delta has number 6
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
}

TEST_F(CRLContainerDeltaTest, OneOfTwoDeltasWithoutBase_ChainIsIncomplete) {
  addBase(-2);
  addDelta(-2, hours(-2), Serial(9));
  addDelta(-2, hours(-1), Serial(5));
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(log.count(kNoBase), 1U);
}

TEST_F(CRLContainerDeltaTest, AnyBaseWillDo) {
  addBase(-2, Serial(1));
  addBase(-2, Serial(7));
  addDelta(-2);
  EXPECT_TRUE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.chainState, OpenContainer::ChainComplete);
}

// Meant so, though 5.2.4 (d) wants the base to be the older one.
TEST_F(CRLContainerDeltaTest, DeltaOlderThanItsBase_HasTheLastWordAllTheSame) {
  add({.issuer = &root, .lastUpdate = hours(-1), .number = Serial(9), .revoked = list(1)});
  addDelta(8, hours(-50));  // its number is 6
  EXPECT_EQ(container.isRevoked(reason), 0);
  container.clear();
  reason = 0;
  add({.issuer = &root, .lastUpdate = hours(-1), .number = Serial(9)});
  addDelta(1, hours(-50));
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
}

// Meant so, though 5.2.4 (a) and (b) want one issuer and one scope.
TEST_F(CRLContainerDeltaTest, BaseOfAnotherIssuerOrScope_IsABaseAllTheSame) {
  const Issued other = issueCA("O=Test,CN=Other");
  add({.issuer = &other, .number = Serial(5)});
  add({.issuer = &root, .number = Serial(6), .deltaBase = Serial(5), .revoked = list(1)});
  EXPECT_TRUE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.isRevoked(reason), kRevoked);
  container.clear();
  reason = 0;
  addBase(1);
  add({.issuer = &root,
       .number = Serial(6),
       .deltaBase = Serial(5),
       .revoked = list(8),
       .idp = Scope{.onlyUser = true}});
  EXPECT_EQ(container.isRevoked(reason), 0);
}

TEST_F(CRLContainerDeltaTest, ChainState_IsKeptUntilClear) {
  addDelta(-2);
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
  addBase(-2);
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.isRevoked(reason), kNoCRL);
  container.clear();
  addBase(-2);
  addDelta(-2);
  EXPECT_TRUE(container.isDeltaCRLChainComplete());
  addDelta(-2, hours(-1), Serial(99));
  EXPECT_TRUE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.isRevoked(reason), 0);
  EXPECT_EQ(log.count(kNoBase), 1U);
}

TEST_F(CRLContainerDeltaTest, NoDelta_ChainIsNotCompleteAndNotComputed) {
  addBase(-2);
  EXPECT_FALSE(container.isDeltaCRLChainComplete());
  EXPECT_EQ(container.chainState, OpenContainer::ChainUnknown);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(CRLContainerDeltaTest, CompleteChain_HandsOutBaseAndDelta) {
  addBase(-2);
  addDelta(-2);
  EXPECT_FALSE(container.getCRL().empty());
  EXPECT_FALSE(container.getCRL().empty());
  EXPECT_TRUE(container.getCRL().empty());
  // The list is empty now; what was found out stays.
  EXPECT_TRUE(container.isDeltaCRLChainComplete());
}

TEST_F(CRLContainerDeltaTest, RejectedDelta_StillPutsTheContainerIntoDeltaMode) {
  addBase(8);
  add({.issuer = &root, .deltaBase = Serial(1), .idp = Scope{.onlyCA = true}});
  EXPECT_EQ(container.entries.size(), 1U);
  EXPECT_TRUE(container.hasDeltaCRL);
  // In delta mode removeFromCRL takes the certificate off the list, without it revokes.
  EXPECT_EQ(container.isRevoked(reason), 0);
  EXPECT_EQ(reason, 0);
}

}  // namespace
}  // namespace Velantrix::Test
