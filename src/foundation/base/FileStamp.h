// What tells one state of a file or a directory from another without reading it.
//
//   const auto now = FileStamp::realTime();
//   const FileDescriptor file(::open(path, O_RDONLY | O_CLOEXEC));
//   const auto before = FileStamp::of(file.get());
//   ...                                                  // read it
//   if (before && before == FileStamp::of(file.get()) && before->isSettled(now) &&
//       isOnLocalFileSystem(file.get())) ...             // what was read holds while the stamp does
//   ...
//   if (FileStamp::at(path) == before) ...               // nothing has changed
#pragma once

#include <velantrix/NonCopyable.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <sys/stat.h>

namespace Velantrix {

/// A file or a directory at one moment. Its changes show here, and those of its owner, mode and access
/// control list do: they have the time of the last change set. Through a mapping a file may be written to
/// without that showing at once, as everywhere where times decide.
struct FileStamp {
  static FileStamp of(const struct stat& status) noexcept;
  /// Of what the path leads to, links followed. None, and errno says why, when that cannot be told.
  static std::optional<FileStamp> at(const char* path) noexcept;
  static std::optional<FileStamp> of(int descriptor) noexcept;

  /// The clock that the times are of.
  static std::chrono::nanoseconds realTime() noexcept;

  bool operator==(const FileStamp&) const = default;

  /// Whether every change since @p readAt shows. Clocks of file systems are coarse, by up to two seconds:
  /// what changes twice within one tick has one time. So both times have to lie that far before the
  /// moment in which reading began; what lies in the future of that does not.
  bool isSettled(std::chrono::nanoseconds readAt) const noexcept;

  std::uint64_t device = 0;
  std::uint64_t number = 0;  ///< of the inode
  std::int64_t size = 0;
  std::int64_t modified = 0;  ///< nanoseconds since the epoch
  std::int64_t changed = 0;
  bool regular = false;
};

/// Whether the file system is one of this machine's own, of which times and numbers can be relied on. One
/// that is not known, or whose clock and inodes are another machine's or a program's, is none.
bool isOnLocalFileSystem(int descriptor) noexcept;

/// By a path, links followed, for who has not opened it yet.
bool isOnLocalFileSystem(const char* path) noexcept;

/// For tests: while it lives, the times in all stamps of the process are cut to multiples of a tick, as by
/// a file system with a coarse clock.
class CoarseStamps : private NonCopyable {
 public:
  explicit CoarseStamps(std::chrono::nanoseconds tick) noexcept;
  ~CoarseStamps();

 private:
  std::int64_t former_;
};

/// For tests: while it lives, `FileStamp::realTime()` is that much later, so that what was written just now
/// is settled.
class StampClockAhead : private NonCopyable {
 public:
  explicit StampClockAhead(std::chrono::nanoseconds ahead) noexcept;
  ~StampClockAhead();

 private:
  std::int64_t former_;
};

}  // namespace Velantrix
