// A call that is asked to stop while it waits, from another thread.
//
//   const FaultServer silent(Scripts::silence());
//   const Stopping stopping([&] { EXPECT_TRUE(silent.waitForRequests(1)); });
//   verifier.stopToken(stopping.token());     // or const Cancellation here(stopping.token());
//   verifier.isValid();
//   EXPECT_TRUE(stopping.wasHeardInTime());
//
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <stop_token>
#include <thread>
#include <utility>

namespace Velantrix::Test {

class Stopping {
 public:
  /// Asks as soon as `untilItWaits` has returned.
  explicit Stopping(std::function<void()> untilItWaits)
      : asking_([this, wait = std::move(untilItWaits)] {
          wait();
          asked_ = Clock::now();
          source_.request_stop();
        }) {}
  ~Stopping() { join(); }
  Stopping(const Stopping&) = delete;
  Stopping& operator=(const Stopping&) = delete;

  std::stop_token token() const { return source_.get_token(); }

  /// Whether what was asked has ended since, and soon: 50 ms, and what a busy machine takes to notice.
  testing::AssertionResult wasHeardInTime() {
    const auto end = Clock::now();
    if (!source_.stop_requested()) {
      join();
      return testing::AssertionFailure() << "it ended before it was asked to stop";
    }
    join();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(end - asked_.load());
    if (took <= kBound + kMargin) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "it went on for " << took.count() << " ms";
  }

 private:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kBound{50};
  static constexpr std::chrono::milliseconds kMargin{450};

  void join() {
    if (asking_.joinable()) asking_.join();
  }

  std::stop_source source_;
  std::atomic<Clock::time_point> asked_{};
  std::thread asking_;  // last: it uses the others
};

}  // namespace Velantrix::Test
