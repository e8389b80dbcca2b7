#include <pkx509/CRLRefresh.h>

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using Result = CRLRefresh::Result;

Time inSeconds(long seconds) { return Time::then(1'800'000'000 + seconds, true); }

CRLRefresh refreshOf(const std::vector<Time>& due) {
  std::vector<CRLRefresh::Entry> entries;
  for (const Time& time : due) entries.push_back({.result = Result::kKept, .due = time});
  return {entries, "", inSeconds(0)};
}

TEST(CRLRefresh, NextDue_IsTheFirstOfItsURIsWithinBounds) {
  EXPECT_EQ(refreshOf({inSeconds(500), inSeconds(300), inSeconds(800)}).nextDue(), inSeconds(300));
  EXPECT_EQ(refreshOf({inSeconds(5000)}).nextDue(), inSeconds(900));
  EXPECT_EQ(refreshOf({}).nextDue(), inSeconds(900));
  EXPECT_EQ(refreshOf({inSeconds(-5), inSeconds(500)}).nextDue(), inSeconds(30));
}

TEST(CRLRefresh, Count_IsOfOneResult) {
  const CRLRefresh refresh({{.result = Result::kUpdated}, {}, {}}, "why", inSeconds(0));
  EXPECT_EQ(refresh.count(Result::kUpdated), 1U);
  EXPECT_EQ(refresh.count(Result::kFailed), 2U);
  EXPECT_EQ(refresh.count(Result::kKept), 0U);
  EXPECT_EQ(refresh.entries().size(), 3U);
  EXPECT_EQ(refresh.problem(), "why");
  EXPECT_EQ(CRLRefresh().entries().size(), 0U);
}

}  // namespace
}  // namespace Velantrix::Test
