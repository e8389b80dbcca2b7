// What the threads of this process share of a desk: which places they are at, the locks on files that go
// with it, and what is kept where the cache cannot be written.
//
// A child that is forked begins with nothing of it: it closes its parent's lock files without giving the
// locks up, since both have them by one open file, and whatever a thread held that the child has not got
// is free there.
#pragma once

#include "retrieval/DeskMemory.h"

#include <velantrix/NonCopyable.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class DeskProcess : private NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  // Lives as long as the process.
  static DeskProcess& instance();
  // Another one after each fork, so that what was made before can be told.
  static unsigned int generation() noexcept;

  // Waits until no other thread is at the place. False when the deadline comes first, or somebody asks
  // this thread to stop.
  bool enter(const std::string& key, Clock::time_point deadline);
  void leave(const std::string& key);

  // openat() of a file to be locked. What is opened is closed by a child. -1, with errno.
  int open(int directory, const char* name, int flags, mode_t mode);
  void close(int descriptor) noexcept;

  // Whether it is time to look how much there is: once before the first file that this process
  // writes, and again when it has written many, or much.
  bool isToTidy(std::size_t bytes);
  // Once.
  bool isToWarn();

  // Calls `use(DeskMemory&)` while nobody else is at it.
  template <typename Use>
  auto withMemory(Use&& use) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return use(memory_);
  }

 private:
  DeskProcess() = default;
  static DeskProcess* make();
  static void beforeFork() noexcept;
  static void afterForkInParent() noexcept;
  static void afterForkInChild() noexcept;

  std::mutex mutex_;
  std::condition_variable left_;
  std::set<std::string> entered_;
  std::vector<int> descriptors_;
  DeskMemory memory_;
  unsigned int writes_ = 0;
  std::size_t bytes_ = 0;
  bool tidied_ = false;
  bool warned_ = false;
};

// A place that this thread is at.
class EnteredPlace : private NonCopyable {
 public:
  EnteredPlace(std::string key, DeskProcess::Clock::time_point deadline);
  ~EnteredPlace();
  bool entered() const noexcept { return entered_ && generation_ == DeskProcess::generation(); }

 private:
  const std::string key_;
  const unsigned int generation_;
  const bool entered_;
};

// An open file with an advisory lock, flock(), which ends with it, with the process, and with nothing else.
class DeskLock : private NonCopyable {
 public:
  // Of the file in the directory, borrowed, which is made where there is none.
  DeskLock(int directory, const char* name, int flags, mode_t mode);
  ~DeskLock();

  // 0, or why it could not be opened.
  int error() const noexcept { return error_; }
  // Without waiting. 0, or the error: EWOULDBLOCK where another holds it.
  int take() noexcept;
  // Whether the file is still the one of that name in the directory.
  bool isNamed(int directory, const char* name) const noexcept;
  // It is in use: nobody is to take it for old.
  void touch() const noexcept;

 private:
  const unsigned int generation_;
  int descriptor_;
  int error_;
};

}  // namespace Velantrix::Crypto::PKX509
