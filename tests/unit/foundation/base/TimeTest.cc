#include <velantrix/Time.h>

#include <ctime>
#include <gtest/gtest.h>
#include <limits>

namespace {

using Velantrix::Time;

TEST(Time, Now_IsTheWallClock) {
  const std::time_t before = std::time(nullptr);
  const Time now = Time::now();
  // time() may lag behind the precise clock by a tick.
  EXPECT_GE(now.seconds(), before);
  EXPECT_LE(now.seconds(), std::time(nullptr) + 1);
}

TEST(Time, Then_SinceEpoch_IsTheOffsetItself) {
  EXPECT_EQ(Time::then(0, true), Time());
  EXPECT_EQ(Time::then(1700000000, true).seconds(), 1700000000);
  EXPECT_EQ(Time::then(-1, true).seconds(), -1);
}

TEST(Time, Then_FromNow_IsRelativeToNow) {
  const Time before = Time::now();
  const Time later = Time::then(3600, false);
  const Time earlier = Time::then(-3600, false);
  const Time after = Time::now();
  EXPECT_GE(later.seconds(), before.seconds() + 3600);
  EXPECT_LE(later.seconds(), after.seconds() + 3600);
  EXPECT_GE(earlier.seconds(), before.seconds() - 3600);
  EXPECT_LE(earlier.seconds(), after.seconds() - 3600);
}

TEST(Time, Then_OffsetBeyondTheRange_IsTheLastTimeThereIs) {
  EXPECT_EQ(Time::then(std::numeric_limits<long>::max(), false).seconds(),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_LT(Time::then(std::numeric_limits<long>::min(), false), Time());
}

TEST(Time, Comparison_Order_IsThatOfTheSeconds) {
  const Time early = Time::then(1, true);
  const Time late = Time::then(2, true);
  EXPECT_TRUE(early < late);
  EXPECT_FALSE(late < early);
  EXPECT_TRUE(late > early);
  EXPECT_FALSE(early > early);
  EXPECT_TRUE(early == Time::then(1, true));
  EXPECT_TRUE(early != late);
}

}  // namespace
