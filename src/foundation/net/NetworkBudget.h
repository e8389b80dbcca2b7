// What a thread may spend on the network: time, and bytes of what it fetches.
//
//   NetworkBudget budget({.time = 60s, .bytes = 128 << 20}, say);
//   const NetworkBudget::Installed installed(budget);  // holds for this thread from here on
//   if (!NetworkBudget::hasTime()) return;
//   const NetworkTimer timer(kConnectTime);
//   connectUntil(timer.deadline());
//
// A stranger's certificate may name a thousand hosts that never answer, or answer without end. Each
// single exchange has bounds of its own; the budget bounds all of them together. Clients ask it
// without knowing who installed it, and a thread without one is refused nothing but what is cancelled
// (`Cancellation`). What it refuses or cuts short is a `Shortfall`.
#pragma once

#include <velantrix/NonCopyable.h>

#include <chrono>
#include <cstddef>
#include <optional>

namespace Velantrix {

class NetworkBudget : private NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    std::optional<Clock::duration> time;  ///< none: no limit
    std::size_t bytes;
    std::optional<Clock::time_point> deadline = {};  ///< of all that is done, none: no limit
  };

  enum class Resource { kTime, kBytes, kDeadline };
  /// Told of each resource once, when it is refused for the first time.
  using SpentHandler = void (*)(Resource spent);

  NetworkBudget(const Limits& limits, SpentHandler onSpent) noexcept
      : limits_(limits), onSpent_(onSpent) {}

  /// Makes a budget that of this thread, in place of none or of another, until it is destroyed.
  /// The budget is borrowed and outlives it.
  class Installed : private NonCopyable {
   public:
    explicit Installed(NetworkBudget& budget) noexcept;
    ~Installed();

   private:
    NetworkBudget* outer_;
  };

  /// Leaves what is done while it lives half of the time that is left on this thread, so that the
  /// other half is there for what comes after it; of what is left until the deadline where that is
  /// less. Whoever uses up this half has come to the end of a single exchange, which is no
  /// shortfall. Where time is not limited it does nothing.
  class HalfOfTime : private NonCopyable {
   public:
    HalfOfTime() noexcept;
    ~HalfOfTime();

   private:
    NetworkBudget* budget_;  // null where there is none
    std::optional<Clock::duration> outer_;
  };

  /// Whether time is left on this thread, and nobody asks it to stop. To be asked before a host is
  /// contacted.
  static bool hasTime();

  /// How many bytes may be read now, at most @p wanted; 0 when they are spent.
  static std::size_t admittedBytes(std::size_t wanted);
  /// Counts what was read, whether or not it was of use.
  static void countBytes(std::size_t bytes) noexcept;

  /// Whether nothing is left of it; of the deadline, whether something was refused or cut short for
  /// its sake.
  bool isSpent(Resource resource) const noexcept;
  /// Whether the deadline is over; whoever asks leaves something out if it is.
  bool isOver();
  Clock::duration timeSpent() const noexcept { return time_; }
  std::size_t bytesSpent() const noexcept { return bytes_; }
  /// Counts time that was spent elsewhere.
  void countTime(Clock::duration time) noexcept { time_ += time; }

 private:
  friend class NetworkTimer;

  bool timeLeft() const noexcept { return !limits_.time.has_value() || time_ < *limits_.time; }
  // What the whole may still take from now on; none: no limit.
  std::optional<Clock::duration> wholeLeft(Clock::time_point now) const noexcept;
  // What may still be spent until then; none: no limit.
  std::optional<Clock::duration> left(const std::optional<Clock::duration>& end) const noexcept;
  void refuse(Resource resource, bool& told) const;
  // Something ended with what was left of the whole.
  void noteCut(Clock::time_point end) noexcept;

  Limits limits_;
  SpentHandler onSpent_;
  std::optional<Clock::duration> half_;  // up to when the half lasts, as `time_` counts; see there
  Clock::duration time_{};
  std::size_t bytes_ = 0;
  bool timeTold_ = false;
  bool bytesTold_ = false;
  bool deadlineTold_ = false;
  bool deadlineCut_ = false;  // something, without a line of the log
};

/// One blocking use of the network. What it takes counts against the thread's budget. One that goes
/// on until nothing is left of the budget is cut short by it.
class NetworkTimer : private NonCopyable {
 public:
  using Clock = NetworkBudget::Clock;

  /// @param bound the use's own limit
  explicit NetworkTimer(Clock::duration bound);
  ~NetworkTimer();

  /// When the use has to end; not later than its start when no time is left.
  Clock::time_point deadline() const noexcept { return deadline_; }
  bool expired() const { return Clock::now() >= deadline_; }

  /// What all of them have taken in this process, those of threads without a budget included.
  static std::chrono::microseconds timeOfAll() noexcept;

 private:
  Clock::time_point start_;
  Clock::time_point deadline_;
  bool cut_;  // the deadline is the whole budget's, before the use's own
};

}  // namespace Velantrix
