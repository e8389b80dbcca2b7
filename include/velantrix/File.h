/// @file
/// Paths, what the file system knows about them, and the walk over one directory.
///
/// @code
///   struct Print : File::Processor {
///     int process(const File::Path& file) override {
///       std::puts(file.asString().c_str());
///       return 0;
///     }
///   } print;
///   File::Selector(File::Path("/etc/ssl/certs"), print).start();
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Velantrix::File {

/// What the file system says about a file at one moment; it may have changed since.
class PKX509_EXPORT Status {
 public:
  Status(bool regular, std::uint64_t size, const Time& creation) noexcept
      : size_(size), creation_(creation), regular_(regular) {}

  /// When the content came to be: the older of the time of birth, where the file system keeps one
  /// (statx(2)), and the time of the last modification. So a file that was copied with its times
  /// counts from its original, and touching a file does not make it younger than it is.
  const Time& creationTime() const noexcept { return creation_; }
  bool isRegular() const noexcept { return regular_; }
  /// In bytes; says nothing for what is not a regular file.
  std::uint64_t size() const noexcept { return size_; }

 private:
  std::uint64_t size_;
  Time creation_;
  bool regular_;
};

/// The name of a file. A plain value: making one touches no file system.
class PKX509_EXPORT Path {
 public:
  explicit Path(const std::string& text);
  /// @p name inside the directory @p dir; with an empty @p dir the name alone.
  Path(const std::string& dir, const std::string& name);

  /// The path as it was given.
  const std::string& asString() const noexcept { return text_; }
  /// The last component; slashes at the end do not count.
  std::string name() const;

  /// @param followLinks true looks at what a symbolic link leads to, false at the link
  /// @throws Exception with the path and the reason when there is no such file or it cannot be seen
  Status status(bool followLinks) const;

 private:
  std::string text_;
};

/// What is done with each file of a directory.
///
/// It forbids copying itself and leaves the base `NonCopyable` to derived classes, which may want
/// it as a base of their own.
class PKX509_EXPORT Processor {
 public:
  Processor(const Processor&) = delete;
  Processor& operator=(const Processor&) = delete;
  virtual ~Processor();
  /// Called once for a file. The path is borrowed for the call. What it throws ends the walk and
  /// reaches the caller of `Selector::start`; but an `Exception` about a file that is gone by then
  /// is dropped, and the walk goes on: somebody took it away while it was about to be read.
  /// @return 0 to go on, anything else to end the walk
  virtual int process(const Path& file) = 0;

 protected:
  Processor() = default;
};

/// Walks one directory, not what lies below it, and hands each file to a processor.
///
/// Only regular files and symbolic links to them are handed on: never a directory, a FIFO, a
/// socket, a device or a link that leads nowhere, so that reading what arrives does not block.
/// (Between the look and the reading somebody who may write to the directory can still exchange the
/// file.) The order is that of the names' bytes, so that two walks over one content do the same.
class PKX509_EXPORT Selector : NonCopyable {
 public:
  /// Says whether a name (without its directory) is of interest.
  using NameFilter = std::function<bool(std::string_view name)>;

  /// @param directory where to look
  /// @param processor borrowed; it outlives the selector
  /// @param accept    judges names before anything else is done with them: what it refuses costs
  ///                  neither memory nor a look at the file, which keeps the walk over a large
  ///                  directory cheap. None accepts all.
  Selector(const Path& directory, Processor& processor, NameFilter accept = nullptr);

  /// Walks the directory as it is now. A directory that does not exist is an empty one.
  /// @throws Exception with the path and the reason when the directory cannot be read
  void start();

  /// Whether the last walk found no such directory, so that nobody has to look for it once more.
  bool isMissing() const noexcept { return missing_; }

 private:
  Path directory_;
  Processor& processor_;
  NameFilter accept_;
  bool missing_ = false;
};

}  // namespace Velantrix::File
