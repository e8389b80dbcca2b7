#include "foundation/base/Shortfall.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/NetworkBudget.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Clock = NetworkBudget::Clock;
using Resource = NetworkBudget::Resource;
using Left = std::optional<Clock::duration>;

std::vector<Resource> s_told;
void tell(Resource spent) { s_told.push_back(spent); }

bool fallsShort(const std::function<void()>& use) {
  const Shortfall::Watch watch;
  use();
  return watch.noted();
}

// A budget that is in force as long as the test's body runs.
class NetworkBudgetInForce : public testing::Test {
 protected:
  NetworkBudgetInForce() { s_told.clear(); }

  NetworkBudget budget_{{60s, 1000}, tell};
  NetworkBudget::Installed installed_{budget_};
};

TEST(NetworkBudget, ThreadWithoutOne_IsRefusedNothing) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
  EXPECT_TRUE(NetworkBudget::hasTime());
  NetworkBudget::countBytes(kMost);
  EXPECT_EQ(NetworkBudget::admittedBytes(kMost), kMost);
  const auto before = Clock::now();
  const NetworkTimer timer(1h);
  EXPECT_GE(timer.deadline(), before + 1h);
}

TEST_F(NetworkBudgetInForce, TimeSpent_IsRefusedAndToldOnce) {
  budget_.countTime(60s - 1ns);
  EXPECT_TRUE(NetworkBudget::hasTime());
  EXPECT_TRUE(s_told.empty());
  budget_.countTime(1ns);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(NetworkBudget::hasTime());
  EXPECT_EQ(s_told, std::vector{Resource::kTime});
}

TEST(NetworkBudget, DeadlineOver_IsRefusedAndToldOnce) {
  s_told.clear();
  const Shortfall::Watch watch;
  NetworkBudget budget({60s, 1000, Clock::now() + 20ms}, tell);
  const NetworkBudget::Installed installed(budget);
  EXPECT_TRUE(NetworkBudget::hasTime());
  EXPECT_FALSE(budget.isOver());
  EXPECT_LE(NetworkTimer(1h).deadline(), Clock::now() + 20ms);
  while (!budget.isOver()) {
  }
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(NetworkBudget::hasTime());
  EXPECT_TRUE(NetworkTimer(1h).expired());
  EXPECT_EQ(s_told, std::vector{Resource::kDeadline});
  EXPECT_TRUE(budget.isSpent(Resource::kDeadline));
  EXPECT_FALSE(budget.isSpent(Resource::kTime));
  EXPECT_TRUE(watch.noted());
}

TEST(NetworkBudget, DeadlineCutsAUse_IsAShortfallWithoutALine) {
  s_told.clear();
  NetworkBudget budget({std::nullopt, 1000, Clock::now() + 20ms}, tell);
  const NetworkBudget::Installed installed(budget);
  const Shortfall::Watch watch;
  {
    const NetworkTimer timer(1h);
    while (!timer.expired()) {
    }
    EXPECT_FALSE(budget.isSpent(Resource::kDeadline));
  }
  EXPECT_TRUE(watch.noted());
  EXPECT_TRUE(budget.isSpent(Resource::kDeadline));
  EXPECT_TRUE(s_told.empty());
}

TEST(NetworkBudget, DeadlineBeforeTheEndOfTheTime_ItsHalfIsLeftToWhatComesAfter) {
  for (const Left& time : {Left(60s), Left()}) {
    const auto deadline = Clock::now() + 100ms;
    NetworkBudget budget({time, 1000, deadline}, tell);
    const NetworkBudget::Installed installed(budget);
    {
      const NetworkBudget::HalfOfTime half;
      const Shortfall::Watch watch;
      {
        const NetworkTimer timer(1h);
        EXPECT_LE(timer.deadline(), deadline - 40ms);
        while (!timer.expired()) {
        }
      }
      EXPECT_FALSE(NetworkBudget::hasTime());
      EXPECT_FALSE(watch.noted());
    }
    EXPECT_TRUE(NetworkBudget::hasTime());
  }
}

TEST(NetworkBudget, AskedToStop_HasNoTimeWithOrWithoutABudget) {
  std::stop_source source;
  source.request_stop();
  const Cancellation here(source.get_token());
  EXPECT_TRUE(fallsShort([] { EXPECT_FALSE(NetworkBudget::hasTime()); }));
  s_told.clear();
  NetworkBudget budget({60s, 1000}, tell);
  const NetworkBudget::Installed installed(budget);
  EXPECT_TRUE(fallsShort([] { EXPECT_FALSE(NetworkBudget::hasTime()); }));
  EXPECT_TRUE(s_told.empty());
}

TEST_F(NetworkBudgetInForce, BytesSpent_AreRefusedAndToldOnce) {
  EXPECT_EQ(NetworkBudget::admittedBytes(1001), 1000U);
  NetworkBudget::countBytes(999);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 1U);
  EXPECT_TRUE(s_told.empty());
  NetworkBudget::countBytes(1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(NetworkBudget::admittedBytes(1000), 0U);
  EXPECT_EQ(s_told, std::vector{Resource::kBytes});
}

TEST_F(NetworkBudgetInForce, BytesCountedPastTheEnd_NothingIsLeft) {
  NetworkBudget::countBytes(1001);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 0U);
  EXPECT_EQ(budget_.bytesSpent(), 1001U);
}

TEST_F(NetworkBudgetInForce, TimeAndBytes_DoNotCountForEachOther) {
  budget_.countTime(60s);
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 1000U);
  NetworkBudget other({60s, 0}, tell);
  const NetworkBudget::Installed inner(other);
  EXPECT_EQ(NetworkBudget::admittedBytes(1), 0U);
  EXPECT_TRUE(NetworkBudget::hasTime());
}

TEST_F(NetworkBudgetInForce, EachRefusal_IsAShortfall) {
  EXPECT_FALSE(fallsShort([] { NetworkBudget::hasTime(); }));
  EXPECT_FALSE(fallsShort([] { NetworkBudget::admittedBytes(1000); }));
  budget_.countTime(60s);
  NetworkBudget::countBytes(1000);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(fallsShort([] { NetworkBudget::hasTime(); }));
    EXPECT_TRUE(fallsShort([] { NetworkBudget::admittedBytes(1); }));
  }
}

TEST_F(NetworkBudgetInForce, UseThatTheBudgetCutsShort_IsAShortfall) {
  EXPECT_FALSE(fallsShort([] { const NetworkTimer timer(0s); }));  // by its own bound
  EXPECT_FALSE(fallsShort([] { const NetworkTimer timer(120s); }));
  budget_.countTime(60s - 1ms);
  EXPECT_TRUE(fallsShort([] {
    const NetworkTimer timer(10s);
    while (!timer.expired()) {
    }
  }));
}

// --- half of the time

Clock::duration boundOf(Clock::duration wanted) {
  const auto before = Clock::now();
  return NetworkTimer(wanted).deadline() - before;
}

TEST_F(NetworkBudgetInForce, HalfOfTime_IsOfWhatIsLeftAndEnds) {
  budget_.countTime(20s);
  {
    const NetworkBudget::HalfOfTime half;
    EXPECT_LE(boundOf(60s), 20s + 1s);
    EXPECT_GE(boundOf(60s), 19s);
    EXPECT_LE(boundOf(5s), 6s);
    budget_.countTime(20s);
    EXPECT_FALSE(NetworkBudget::hasTime());
    EXPECT_LE(boundOf(60s), 1s);
  }
  EXPECT_TRUE(NetworkBudget::hasTime());
  EXPECT_GE(boundOf(60s), 19s);
  EXPECT_TRUE(s_told.empty());
}

TEST_F(NetworkBudgetInForce, HalfOfTimeUsedUp_IsNoShortfall) {
  budget_.countTime(60s - 2ms);
  EXPECT_FALSE(fallsShort([] {
    const NetworkBudget::HalfOfTime half;
    const NetworkTimer timer(10s);
    while (!timer.expired()) {
    }
  }));
}

TEST_F(NetworkBudgetInForce, AllOfTheTimeUsedUpInAHalf_IsAShortfall) {
  EXPECT_TRUE(fallsShort([this] {
    const NetworkBudget::HalfOfTime half;
    budget_.countTime(60s);
    EXPECT_FALSE(NetworkBudget::hasTime());
  }));
  EXPECT_EQ(s_told, std::vector{Resource::kTime});
  EXPECT_TRUE(fallsShort([] {
    const NetworkBudget::HalfOfTime half;
    const NetworkTimer timer(10s);
    EXPECT_TRUE(timer.expired());
  }));
}

TEST_F(NetworkBudgetInForce, HalfInAHalf_IsAQuarter) {
  const NetworkBudget::HalfOfTime half;
  {
    const NetworkBudget::HalfOfTime quarter;
    EXPECT_LE(boundOf(60s), 15s + 1s);
    EXPECT_GE(boundOf(60s), 14s);
  }
  EXPECT_GE(boundOf(60s), 29s);
}

TEST(NetworkBudget, HalfOfNoLimit_IsNone) {
  {
    const NetworkBudget::HalfOfTime half;
    EXPECT_TRUE(NetworkBudget::hasTime());
    EXPECT_GE(boundOf(1h), 1h);
  }
  NetworkBudget budget({std::nullopt, 0}, tell);
  const NetworkBudget::Installed installed(budget);
  const NetworkBudget::HalfOfTime half;
  budget.countTime(1h);
  EXPECT_TRUE(NetworkBudget::hasTime());
  EXPECT_GE(boundOf(1h), 1h);
}

TEST_F(NetworkBudgetInForce, InnerOne_StandsInFrontUntilItEnds) {
  budget_.countTime(60s);
  {
    NetworkBudget other({1s, 5}, tell);
    const NetworkBudget::Installed inner(other);
    EXPECT_TRUE(NetworkBudget::hasTime());
    EXPECT_EQ(NetworkBudget::admittedBytes(1000), 5U);
  }
  EXPECT_FALSE(NetworkBudget::hasTime());
  EXPECT_EQ(NetworkBudget::admittedBytes(1000), 1000U);
}

TEST_F(NetworkBudgetInForce, OtherThread_HasNone) {
  budget_.countTime(60s);
  bool elsewhere = false;
  std::thread([&elsewhere] { elsewhere = NetworkBudget::hasTime(); }).join();
  EXPECT_TRUE(elsewhere);
  EXPECT_FALSE(NetworkBudget::hasTime());
}

TEST(NetworkTimer, Deadline_IsTheOwnBoundOrWhatTheBudgetHasLeft) {
  const struct {
    std::optional<Clock::duration> limit;
    Clock::duration spent;
    Clock::duration bound;
    Clock::duration expected;
  } rows[] = {
      {{}, 0s, 10s, 10s},  {60s, 0s, 10s, 10s},  {60s, 55s, 10s, 5s}, {60s, 50s, 10s, 10s},
      {60s, 60s, 10s, 0s}, {60s, 99s, 10s, 0s},  {0s, 0s, 10s, 0s},   {{}, 99s, 10s, 10s},
      {60s, 0s, -1s, -1s}, {60s, 60s, -1s, -1s},
  };
  for (const auto& row : rows) {
    NetworkBudget budget({row.limit, 0}, tell);
    const NetworkBudget::Installed installed(budget);
    budget.countTime(row.spent);
    const auto before = Clock::now();
    const NetworkTimer timer(row.bound);
    const auto after = Clock::now();
    EXPECT_GE(timer.deadline(), before + row.expected);
    EXPECT_LE(timer.deadline(), after + row.expected);
    EXPECT_EQ(timer.expired(), row.expected <= 0s);
  }
}

TEST_F(NetworkBudgetInForce, WhatATimerTakes_Counts) {
  budget_.countTime(7s);
  const auto before = Clock::now();
  Clock::duration inner{};
  {
    const NetworkTimer timer(10s);
    const auto begin = Clock::now();
    while (Clock::now() < begin + 5ms) {
    }
    inner = Clock::now() - begin;
  }
  const auto spent = budget_.timeSpent() - 7s;
  EXPECT_GE(spent, inner);
  EXPECT_LE(spent, Clock::now() - before);
  // It counts also when an exception ends the use.
  try {
    const NetworkTimer timer(10s);
    throw std::runtime_error("cut");
  } catch (const std::runtime_error&) {
  }
  EXPECT_GT(budget_.timeSpent() - 7s, spent);
}

}  // namespace
}  // namespace Velantrix::Test
