// Whether somebody has asked this thread to stop what it does on the network or waits for.
//
//   const Cancellation here(token);                   // holds for this thread from here on
//   ...
//   if (Cancellation::requested()) return;            // between steps
//   pollfd ends{.fd = Cancellation::descriptor(), .events = POLLIN};   // while one waits; -1 is passed over
//
// What is cancelled is a `Shortfall`: it never counts as good.
#pragma once

#include <velantrix/NonCopyable.h>

#include <memory>
#include <stop_token>

namespace Velantrix {

class Cancellation : private NonCopyable {
 public:
  /// Of a token that nobody can use it is nothing, and costs nothing. What holds on this thread already
  /// goes on to hold: whoever asks first stops it.
  explicit Cancellation(std::stop_token token) noexcept;
  ~Cancellation();

  /// Of this thread. Noted as a `Shortfall` where it is so.
  static bool requested() noexcept;
  /// Whether that was so when somebody asked before. It asks nobody and notes nothing.
  static bool noticed() noexcept;
  /// Becomes readable when that is asked for, and stays so; -1 where nobody can ask, or there is no
  /// descriptor left. Borrowed, and good for the next wait: ask again before another one, since a
  /// child that is forked gets one of its own. It only ends the wait: `requested()` says why.
  static int descriptor() noexcept;
  /// One that nobody can use where there is none. A `std::stop_callback` on it may be called in any
  /// thread.
  static const std::stop_token& token() noexcept;

 private:
  struct Both;
  struct Event;

  std::stop_token token_;         // what holds on the thread
  std::unique_ptr<Both> both_;    // where it is this one and an outer one
  std::unique_ptr<Event> event_;  // as soon as somebody waits
  Cancellation* outer_ = nullptr;
  bool holds_ = false;
  bool lost_ = false;  // there was no memory to listen to both: as if it were asked for
  bool noticed_ = false;
};

}  // namespace Velantrix
