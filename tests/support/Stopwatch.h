// How long something took, and whether that is within a bound.
#pragma once

#include <chrono>
#include <gtest/gtest.h>

namespace Velantrix::Test {

/// What a bound on time may be passed by until a busy machine has noticed.
inline constexpr std::chrono::milliseconds kSlack{1500};

class Stopwatch {
 public:
  std::chrono::milliseconds elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
  }
  /// Has it taken the time, and no longer than that and the slack?
  testing::AssertionResult took(std::chrono::milliseconds time) const {
    const auto all = elapsed();
    if (all >= time && all <= time + kSlack) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "it took " << all.count() << " ms";
  }
  /// Has it ended without waiting for anything?
  testing::AssertionResult tookNoTime() const { return took(std::chrono::milliseconds(0)); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

template <typename Action>
std::chrono::milliseconds timeOf(Action&& action) {
  const Stopwatch watch;
  action();
  return watch.elapsed();
}

}  // namespace Velantrix::Test
