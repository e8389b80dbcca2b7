#include "foundation/base/DirectoryLock.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>

namespace Velantrix {

namespace {

constexpr Origin kHere{"DirectoryLock", "DirectoryLock"};

}  // namespace

DirectoryLock::DirectoryLock(const std::string& directory, std::chrono::milliseconds wait,
                             GiveUp giveUp)
    : directory_(::open(systemPath(directory), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!directory_.valid()) failSystem(kHere, directory, errno);
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + wait;
  // A blocking flock() has no deadline, so it is asked again, at growing intervals.
  constexpr std::chrono::milliseconds kLongestPause{10};
  for (std::chrono::milliseconds pause{1};; pause = std::min(2 * pause, kLongestPause)) {
    held_ = ::flock(directory_.get(), LOCK_EX | LOCK_NB) == 0 || !wouldBlock(errno);
    if (held_ || Clock::now() >= end || (giveUp != nullptr && giveUp())) return;
    std::this_thread::sleep_for(pause);
  }
}

// A child that was forked meanwhile has the same lock: closing the descriptor here would leave it.
DirectoryLock::~DirectoryLock() {
  if (held_) static_cast<void>(::flock(directory_.get(), LOCK_UN));
}

}  // namespace Velantrix
