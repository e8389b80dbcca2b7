#include "StandardStreams.h"

#include "Printable.h"
#include "Status.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace Velantrix::Tool {

namespace {

[[noreturn]] void fail(const char* stream, int error) {
  throw ToolError(std::string(stream) + ": " + std::generic_category().message(error));
}

// 0, or an error number.
int writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(descriptor, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

void prepareStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest free number is this one. The direction is the wrong one on purpose: using a closed
    // stream stays an error.
    const int direction = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    static_cast<void>(::open("/dev/null", direction | O_NOCTTY));
  }
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

void writeOutput(std::string_view text) {
  if (const int error = writeAll(STDOUT_FILENO, text)) fail("standard output", error);
}

void writeErrorLine(std::string_view text) {
  static_cast<void>(writeAll(STDERR_FILENO, printable(text) + "\n"));
}

void writeErrorRaw(std::string_view text) { static_cast<void>(writeAll(STDERR_FILENO, text)); }

}  // namespace Velantrix::Tool
