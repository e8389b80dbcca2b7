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

std::string readStandardInput(std::size_t limit) {
  constexpr std::size_t kChunk = std::size_t{64} * 1024;
  std::string content;
  std::size_t used = 0;
  for (;;) {
    if (content.size() - used < kChunk) content.resize(content.size() * 2 + kChunk);
    const ssize_t count = ::read(STDIN_FILENO, content.data() + used, content.size() - used);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      fail("standard input", errno);
    }
    used += static_cast<std::size_t>(count);
    if (used > limit) throw ToolError("standard input: more than can be read");
  }
  content.resize(used);
  return content;
}

void writeOutput(std::string_view text) {
  if (const int error = writeAll(STDOUT_FILENO, text)) fail("standard output", error);
}

void writeErrorLine(std::string_view text) {
  static_cast<void>(writeAll(STDERR_FILENO, printable(text) + "\n"));
}

}  // namespace Velantrix::Tool
