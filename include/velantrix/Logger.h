/// @file
/// Where the library's log lines go.
///
/// @code
///   class ToStderr : public Velantrix::Logger {
///     void line(int priority, const std::string& text) override { std::cerr << text << '\n'; }
///   } logger;
///   Velantrix::Logger::install(&logger);
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>

#include <string>

namespace Velantrix {

/// The receiver of log lines, and by itself the default one: it writes to syslog(3), facility
/// "mail", with the priority of each line; a line without text goes out as LOG_DEBUG, since number
/// 0 means an emergency there and is shown to everybody who is logged in. It calls neither
/// openlog(3) nor closelog(3): the identification is the program's.
///
/// A program installs a logger of its own by deriving from this class. It overrides `line` to be
/// given a priority and a text, or `write` to be given the formatted write itself.
///
/// **Threads.** Lines come from every thread that verifies, at the same time. An override must cope
/// with that; the default does.
///
/// **How many.** A verification writes at most 200 lines, then one that says so and, when it ends,
/// one that says how many were left out; with the lines that say what is not valid, and why, there
/// may be a few more.
///
/// **Failure.** A line that cannot be written is lost and nothing else happens: what a logger
/// throws while the library logs is swallowed, because logging must not change a verdict.
class PKX509_EXPORT Logger : NonCopyable {
 public:
  Logger();
  virtual ~Logger();

  /// The process-wide logger: the installed one, else the default.
  /// @param unused the library passes false; it has no effect
  static Logger& instance(bool unused);

  /// Makes @p logger the process-wide one; null brings the default back. The exchange is atomic.
  ///
  /// @param logger borrowed: it outlives its installation *and* every call that other threads are
  ///               making to it when it is replaced
  /// @return the logger that was installed before, null when it was the default
  static Logger* install(Logger* logger) noexcept;

  /// The formatted write through which every line passes.
  ///
  /// The library calls it with the category 0x4000000, the flags 0 and a format made of "%d", the
  /// byte 0x01 and "%s", followed by a syslog priority (6 informational, 7 debug) and the text.
  /// This implementation formats, splits at the byte 0x01 into priority and text, cuts the text at
  /// 8 KiB (between two UTF-8 characters) and hands both to `line`. Without that byte, or with
  /// something other than a priority in front of it, the whole is a text of priority 6.
  virtual void write(unsigned int category, unsigned int flags, const char* format, ...)
      __attribute__((format(printf, 4, 5)));

 protected:
  /// One line, taken apart. This implementation calls syslog(3).
  /// @param priority a syslog priority, 0 to 7
  /// @param text     without a line end; control characters, and what hides or reorders text,
  ///                 were replaced by whoever logged
  virtual void line(int priority, const std::string& text);
};

}  // namespace Velantrix
