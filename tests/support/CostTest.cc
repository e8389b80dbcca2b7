#include "support/Cost.h"
#include "support/Stopwatch.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMega = 1000 * 1000;

// Memory counts from when it is touched.
std::vector<std::unique_ptr<char[]>> touch(std::size_t bytes, std::size_t piece) {
  std::vector<std::unique_ptr<char[]>> pieces;
  for (std::size_t touched = 0; touched < bytes; touched += piece) {
    pieces.emplace_back(new char[piece]);
    std::memset(pieces.back().get(), 1, piece);
  }
  return pieces;
}

void compute(std::chrono::milliseconds time) {
  const std::clock_t end = std::clock() + time.count() * CLOCKS_PER_SEC / 1000;
  while (std::clock() < end) {
  }
}

std::string thrownBy(const std::function<void()>& step) {
  try {
    costOf(step);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "nothing";
}

TEST(Cost, MemoryIsThePeak_AlsoOfWhatWasFreedAgain) {
  if (!costsCanBeMeasured()) return;
  // Linux counts pages in batches, so that some of them are told too late.
  const Cost cost = costOf([] { touch(41 * kMega, kMega); });
  EXPECT_GE(cost.memory, 40 * kMega);
  EXPECT_LT(cost.memory, 50 * kMega);
}

// The child has all of its parent's memory, what the parent has freed included.
TEST(Cost, MemoryOfTheParent_IsNoPartOfIt) {
  if (!costsCanBeMeasured()) return;
  const auto held = touch(40 * kMega, 1000);
  EXPECT_LT(costOf([] {}).memory, 10 * kMega);
  auto freed = touch(40 * kMega, 1000);
  const auto above = touch(1000, 1000);  // keeps the heap from shrinking
  freed.clear();
  const Cost cost = costOf([] { touch(41 * kMega, 1000); });
  EXPECT_GE(cost.memory, 40 * kMega);
  EXPECT_LT(cost.memory, 55 * kMega);
}

TEST(Cost, ProcessorTime_IsNotThatOfWaiting) {
  const Stopwatch watch;
  const Cost cost = costOf([] {
    compute(60ms);
    std::this_thread::sleep_for(100ms);
  });
  EXPECT_GE(cost.processor, 59ms);
  EXPECT_LT(cost.processor, 150ms);
  EXPECT_GE(watch.elapsed(), 160ms);
}

TEST(Cost, StepThatFails_IsAFailureInItsOwnWords) {
  EXPECT_EQ(thrownBy([] { throw std::invalid_argument("not this"); }),
            "step ended with status 0: not this");
  EXPECT_EQ(thrownBy([] { throw 7; }), "step ended with status 0: an exception of no known type");
  EXPECT_EQ(thrownBy([] { raise(SIGKILL); }),
            "step ended with status " + std::to_string(128 + SIGKILL) + ": ");
}

TEST(Cost, Bound_IsAFactorAndAnAllowance) {
  constexpr Cost kBare{10 * kMega, 100ms};
  struct Row {
    Cost ours;
    bool within;
  };
  const Row rows[] = {
      {{0, 0ms}, true},
      {{80 * kMega, 800ms}, true},
      {{80 * kMega + 1, 0ms}, false},
      {{0, 801ms}, false},
  };
  for (const Row& row : rows) {
    const testing::AssertionResult result = inProportion(row.ours, kBare);
    EXPECT_EQ(static_cast<bool>(result), row.within) << result.message();
  }
  EXPECT_STREQ(inProportion({2000, 3ms}, kBare).message(),
               "2 kB and 3 ms of processor time, where bare OpenSSL takes 10000 kB and 100 ms");
}

TEST(Cost, Comparison_RunsBoth) {
  const auto little = [] { touch(kMega, 1000); };
  const auto much = [] { touch(70 * kMega, kMega); };
  EXPECT_TRUE(costInProportion(little, little));
  EXPECT_TRUE(costInProportion(much, much));
  EXPECT_EQ(static_cast<bool>(costInProportion(much, little)), !costsCanBeMeasured());
}

}  // namespace
}  // namespace Velantrix::Test
