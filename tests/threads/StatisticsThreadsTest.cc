// Counters that several threads write while others read them.
#include "foundation/run/Counters.h"
#include "threads/Threads.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::count;
using Crypto::PKX509::CountedSince;
using Crypto::PKX509::Statistics;
using Statistic = Statistics::Counter;

TEST(StatisticsThreads, EightThreadsCount_SumsAreExact) {
  constexpr int kCounting = 8;
  constexpr int kRounds = 5000;
  const CountedSince since;
  onThreads(kCounting, [](int thread) {
    for (int i = 0; i < kRounds; ++i) {
      count(Statistic::kLookupsCache);
      count(Statistic::kNetworkBytes, static_cast<std::uint64_t>(thread));
    }
  });
  EXPECT_EQ(since.of(Statistic::kLookupsCache), kCounting * kRounds);
  EXPECT_EQ(since.of(Statistic::kNetworkBytes), kRounds * (kCounting * (kCounting - 1) / 2));
}

// More threads than there are places for their counters, so that some share one.
TEST(StatisticsThreads, SnapshotWhileThreadsCount_NeverGoesBack) {
  constexpr int kCounting = 20;
  constexpr int kRounds = 200;
  const CountedSince since;
  std::vector<char> grew(kCounting, 1);
  onThreads(kCounting, [&](int thread) {
    std::uint64_t last = 0;
    for (int i = 0; i < kRounds; ++i) {
      count(Statistic::kHitsCache);
      const std::uint64_t seen = since.of(Statistic::kHitsCache);
      if (seen <= last && i == 0) grew[static_cast<std::size_t>(thread)] = 0;  // not even its own
      if (seen < last) grew[static_cast<std::size_t>(thread)] = 0;
      last = seen;
    }
  });
  EXPECT_TRUE(std::all_of(grew.begin(), grew.end(), [](char one) { return one != 0; }));
  EXPECT_EQ(since.of(Statistic::kHitsCache), kCounting * kRounds);
}

}  // namespace
}  // namespace Velantrix::Test
