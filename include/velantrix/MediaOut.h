/// @file
/// Where encoded certificates and CRLs are written to.
///
/// @code
///   FileMediaOut out("/var/cache/example/4a6481c9.0");
///   certificate->writePEM(out);
///   out.flush();   // the file is complete under its name from here on
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Velantrix {

/// A sink of bytes. One object is used by one thread at a time.
class PKX509_EXPORT MediaOut : NonCopyable {
 public:
  virtual ~MediaOut();
  /// Appends @p length bytes.
  /// @throws Exception when they cannot be taken
  virtual void write(const void* data, std::size_t length) = 0;
  /// Makes what was written so far final: nothing before it is certain to have arrived anywhere.
  /// @throws Exception when that fails
  virtual void flush() = 0;

 protected:
  MediaOut() = default;
};

/// Writes a file so that its name leads to a complete file at every moment: the old one or the new.
///
/// The bytes go to a file of its own beside the target, whose name contains "-tmp-", so that
/// nothing that reads a directory by hash names takes it for one of them. `flush()` brings it to
/// the disk (fsync(2)), gives it the target's name (rename(2)) and brings the directory to the
/// disk; until then the old file stands, and a reader that has it open keeps reading it. A `write`
/// after a `flush` goes on with what was flushed, and needs another `flush`.
///
/// What was written and never flushed is thrown away by the destructor. The file's mode is 0666
/// less the umask, whatever the old file had. A symbolic link at the target is replaced, not
/// followed.
///
/// Two writers of one target do not disturb each other: the one that flushes last wins. A writer
/// that was killed leaves its file behind; the next one for the same target removes those older
/// than an hour.
class PKX509_EXPORT FileMediaOut : public MediaOut {
 public:
  /// @throws Exception with the path and the reason when no file can be made in the directory, or
  ///         when there is something at @p path that is no file (a directory, a device)
  explicit FileMediaOut(const std::string& path);
  ~FileMediaOut() override;

  /// @throws Exception with the path and the reason. The object is then of no more use: its own
  ///         file is gone, the target is what the last successful `flush` or somebody else made of
  ///         it, and everything later throws.
  void write(const void* data, std::size_t length) override;
  /// @throws Exception as `write` does. When only the last step fails, bringing the directory to
  ///         the disk, the new file stands under its name but may not outlast a loss of power.
  void flush() override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Collects in memory.
class PKX509_EXPORT StringMediaOut : public MediaOut {
 public:
  StringMediaOut();
  ~StringMediaOut() override;

  void write(const void* data, std::size_t length) override;
  /// Does nothing: what is in memory has arrived.
  void flush() override;

  /// All that was written.
  const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

}  // namespace Velantrix
