// Keeps others out of a directory while one changes it: threads and processes that lock it too.
//
//   const DirectoryLock lock(directory, 300ms);
//   if (!lock.held()) return;  // somebody else is at it
#pragma once

#include "foundation/base/FileDescriptor.h"

#include <velantrix/NonCopyable.h>

#include <chrono>
#include <string>

namespace Velantrix {

/// An advisory lock, flock(), on the directory itself: no file is made for it, and it goes with the
/// process that dies. Where the file system has no such locks, everybody holds it.
class DirectoryLock : private NonCopyable {
 public:
  /// Whether there is no sense in waiting any longer.
  using GiveUp = bool (*)() noexcept;

  /// Tries for at most @p wait, and not again once @p giveUp says so; it is asked every 10 ms. Whoever may
  /// read the directory can hold it for ever.
  /// @throws Exception with the path and the reason when the directory cannot be opened
  DirectoryLock(const std::string& directory, std::chrono::milliseconds wait,
                GiveUp giveUp = nullptr);
  ~DirectoryLock();

  bool held() const noexcept { return held_; }

 private:
  FileDescriptor directory_;
  bool held_ = false;
};

}  // namespace Velantrix
