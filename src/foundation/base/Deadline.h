// When something that waits for the network has to be done with.
//
//   const Deadline deadline(std::chrono::seconds(10));
//   while (!ready) poll(&entry, 1, deadline.left());
#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace Velantrix {

/// A point on the monotonic clock: setting the machine's time neither shortens nor extends a wait.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Deadline(std::chrono::milliseconds bound) : end_(Clock::now() + bound) {}
  explicit Deadline(Clock::time_point end) noexcept : end_(end) {}

  bool passed() const { return Clock::now() >= end_; }

  /// For poll(2): rounded up, so that a wait does not end just before the deadline, and 0 after it.
  int left() const {
    using std::chrono::milliseconds;
    const auto rest = std::chrono::ceil<milliseconds>(end_ - Clock::now()).count();
    return static_cast<int>(
        std::clamp<milliseconds::rep>(rest, 0, std::numeric_limits<int>::max()));
  }

 private:
  Clock::time_point end_;
};

}  // namespace Velantrix
