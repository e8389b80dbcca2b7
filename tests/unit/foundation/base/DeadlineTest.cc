#include "foundation/base/Deadline.h"

#include <chrono>
#include <gtest/gtest.h>
#include <limits>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Clock = Deadline::Clock;

TEST(Deadline, InTheFuture_HasNotPassedAndLeavesTheRest) {
  const Deadline deadline(1h);
  EXPECT_FALSE(deadline.passed());
  EXPECT_LE(deadline.left(), 3600 * 1000);
  EXPECT_GT(deadline.left(), 3500 * 1000);
}

TEST(Deadline, NowOrBefore_HasPassedAndLeavesNothing) {
  for (const Deadline& deadline : {Deadline(0ms), Deadline(-1h), Deadline(Clock::now())}) {
    EXPECT_TRUE(deadline.passed());
    EXPECT_EQ(deadline.left(), 0);
  }
}

// poll(2) with 0 would turn until the deadline comes.
TEST(Deadline, LessThanAMillisecond_IsRoundedUp) {
  bool seen = false;
  while (!seen) {
    const Clock::time_point end = Clock::now() + 900us;
    const int left = Deadline(end).left();
    if (Clock::now() >= end) continue;  // this thread did not get to it in time
    EXPECT_EQ(left, 1);
    seen = true;
  }
}

// To poll(2) a negative number is no bound at all.
TEST(Deadline, FurtherThanPollCounts_IsTheMostThatItCounts) {
  EXPECT_EQ(Deadline(std::chrono::hours(24 * 365)).left(), std::numeric_limits<int>::max());
  EXPECT_EQ(Deadline(Clock::time_point::max()).left(), std::numeric_limits<int>::max());
}

}  // namespace
}  // namespace Velantrix::Test
