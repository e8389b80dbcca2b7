// A mutex that a child which is forked does not inherit from a thread that it has not got.
//
//   ForkLock lock([](bool whole) { if (!whole) startAnew(); });   // at namespace scope
//   ...
//   const std::lock_guard<ForkLock> held(lock);
//
// The thread that forks takes it for as long as that lasts, so that what it protects is the same for the
// child, and no thread is in the middle of changing it. It waits for that a moment only: a program may take
// locks of its own when it forks, and a thread that has one of those may wait for this one.
#pragma once

#include <velantrix/NonCopyable.h>

#include <mutex>

namespace Velantrix {

/// Made when the library is loaded, so that none is half made when somebody forks, and never destroyed. For
/// short looks: a thread that forks waits for it.
class ForkLock : private NonCopyable {
 public:
  /// Called in a child, before anything else there can take the lock. Unless all is whole, a thread may
  /// have been about to change what it protects: that is then to be made anew, and what there was not even
  /// to be destroyed.
  using InChild = void (*)(bool whole);

  /// At most `kMaximum` in a process.
  explicit ForkLock(InChild inChild) noexcept;

  static constexpr int kMaximum = 8;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  bool try_lock() { return mutex_.try_lock(); }

  /// How many times the process was forked since its first ancestor made the lock: what a thread began
  /// under another number it will not end here.
  unsigned int generation() const noexcept { return generation_; }

 private:
  friend struct ForkLocks;

  std::mutex mutex_;
  InChild inChild_;
  unsigned int generation_ = 0;
};

}  // namespace Velantrix
