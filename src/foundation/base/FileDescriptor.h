// Owner of a file descriptor, and what failed system calls say.
#pragma once

#include "foundation/base/Fail.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Velantrix {

/// Owns a file descriptor; -1 is none.
class FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    FileDescriptor old(std::exchange(descriptor_, other.release()));
    return *this;
  }
  ~FileDescriptor() {
    // Whether close() succeeds matters to nobody: what has to reach the disk was synced before.
    if (descriptor_ < 0) return;
    const NoCancellation untilReturn;
    static_cast<void>(::close(descriptor_));
  }

  int get() const noexcept { return descriptor_; }
  bool valid() const noexcept { return descriptor_ >= 0; }
  int release() noexcept { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

/// Whether a call on a descriptor that does not block failed with @p error only for the moment.
inline bool wouldBlock(int error) noexcept {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/// Writes all of it to an open file. 0, or the error.
inline int writeAll(int file, const void* data, std::size_t length) noexcept {
  const char* next = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t written = ::write(file, next, length);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    next += written;
    length -= static_cast<std::size_t>(written);
  }
  return 0;
}

/// What goes into the exception for a system call that failed with @p error:
/// "/path/of/file: Permission denied".
inline std::string systemErrorText(const std::string& path, int error) {
  return path + ": " + std::generic_category().message(error);
}

/// The system call that failed last on this thread, for whoever wants the number behind an exception: what
/// is thrown is an `Exception` and nothing else, which programs know by its type.
struct SystemFailure {
  /// Whether that is what the text of an exception is about.
  bool isSaidBy(std::string_view text) const {
    return error != 0 && text.ends_with(systemErrorText(path, error));
  }

  std::string path = {};  ///< what it was about: a file, a directory, a server
  int error = 0;          ///< its errno
};
inline thread_local SystemFailure lastSystemFailure;

/// Throws what a system call's failure is to its caller. A lack of memory or descriptors is noted.
/// @param line the caller's, unless it is given
[[noreturn]] inline void failSystem(const Origin& origin, const std::string& path, int error,
                                    unsigned int line = __builtin_LINE()) {
  Shortfall::noteIfExhausted(error);
  lastSystemFailure = {path, error};
  fail(origin, systemErrorText(path, error), line);
}

/// @p path for a system call, borrowed. A system call would silently stop at a NUL byte and so look
/// at another file than the one named.
inline const char* systemPath(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    fail({"File::Path", "FileDescriptor"}, path + ": The name contains a NUL byte.");
  }
  return path.c_str();
}

}  // namespace Velantrix
