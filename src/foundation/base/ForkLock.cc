#include "foundation/base/ForkLock.h"

#include <velantrix/Assert.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <new>
#include <pthread.h>
#include <thread>

namespace Velantrix {

namespace {

std::array<std::atomic<ForkLock*>, ForkLock::kMaximum> locks{};

// Of the locks, by their places, those that this thread has taken since it forks. Threads may fork at once.
thread_local std::array<bool, ForkLock::kMaximum> taken{};

bool takeWithin(std::mutex& mutex, std::chrono::steady_clock::time_point end) {
  constexpr std::chrono::microseconds kPause{100};
  while (!mutex.try_lock()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace

struct ForkLocks {
  static void s_before_fork() {
    constexpr std::chrono::milliseconds kPatience{100};
    const auto end = std::chrono::steady_clock::now() + kPatience;
    for (std::size_t i = 0; i < locks.size(); ++i) {
      ForkLock* const lock = locks[i];
      taken[i] = lock != nullptr && takeWithin(lock->mutex_, end);
    }
  }

  static void s_in_parent() {
    for (std::size_t i = 0; i < locks.size(); ++i) {
      if (taken[i]) locks[i].load()->mutex_.unlock();
    }
  }

  static void s_in_child() {
    for (std::size_t i = 0; i < locks.size(); ++i) {
      ForkLock* const lock = locks[i];
      if (lock == nullptr) continue;
      ++lock->generation_;
      if (taken[i]) {
        lock->mutex_.unlock();
      } else {
        new (&lock->mutex_) std::mutex;  // whoever has the other one is in the parent
      }
      lock->inChild_(taken[i]);
    }
  }
};

ForkLock::ForkLock(InChild inChild) noexcept : inChild_(inChild) {
  static const int failure =
      ::pthread_atfork(ForkLocks::s_before_fork, ForkLocks::s_in_parent, ForkLocks::s_in_child);
  PKX509_ASSERT(failure == 0);
  const bool isKnown =
      std::any_of(locks.begin(), locks.end(), [this](std::atomic<ForkLock*>& place) {
        ForkLock* none = nullptr;
        return place.compare_exchange_strong(none, this);
      });
  PKX509_ASSERT(isKnown);
}

}  // namespace Velantrix
