// What one object is locked with, where the object may come to a child that is forked: the thread that holds
// it then may be one that the child has not got.
//
//   ForkMutex mutex;                                    // in the object; held as long as it takes
//   ...
//   const std::lock_guard<ForkMutex> held(mutex);
//
// The child takes it as if nobody held it. What that thread was about to change may be torn: changes that
// have to be whole are made within a `ForkLock`, which is for short looks.
#pragma once

#include <velantrix/NonCopyable.h>

#include <atomic>
#include <mutex>

namespace Velantrix {

/// How many forks lie between this process and its ancestor that loaded the library.
unsigned int forkGeneration() noexcept;

class ForkMutex : private NonCopyable {
 public:
  ForkMutex() noexcept : generation_(forkGeneration()) {}

  void lock() {
    if (generation_.load(std::memory_order_acquire) != forkGeneration()) takeOver();
    mutex_.lock();
  }
  void unlock() { mutex_.unlock(); }

 private:
  void takeOver();

  std::mutex mutex_;
  std::atomic<unsigned int> generation_;
};

/// As std::once_flag: what a thread that a child has not got was about to do is done in the child again.
class ForkOnce : private NonCopyable {
 public:
  template <class Body>
  void call(const Body& body) {
    if (done_.load(std::memory_order_acquire)) return;
    const std::lock_guard<ForkMutex> held(mutex_);
    if (done_.load(std::memory_order_relaxed)) return;
    body();
    done_.store(true, std::memory_order_release);
  }

 private:
  ForkMutex mutex_;
  std::atomic<bool> done_ = false;
};

}  // namespace Velantrix
