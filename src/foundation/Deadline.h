// When something that waits for the network has to be done with.
//
//   const Deadline deadline(std::chrono::seconds(10));
//   while (!ready) poll(&entry, 1, deadline.left());
#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace Velantrix {

/// What may really be spent of a bound. All waiting for the network passes here, so a budget that
/// is wider than one operation is taken into account in this place.
inline std::chrono::milliseconds remaining(std::chrono::milliseconds bound) { return bound; }

/// A point on the monotonic clock: setting the machine's time neither shortens nor extends a wait.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds bound) : end_(Clock::now() + remaining(bound)) {}

  bool passed() const { return Clock::now() >= end_; }

  /// For poll(2): rounded up, so that a wait does not end just before the deadline, and 0 after it.
  int left() const {
    using std::chrono::milliseconds;
    const auto rest = std::chrono::ceil<milliseconds>(end_ - Clock::now()).count();
    return static_cast<int>(
        std::clamp<milliseconds::rep>(rest, 0, std::numeric_limits<int>::max()));
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point end_;
};

}  // namespace Velantrix
