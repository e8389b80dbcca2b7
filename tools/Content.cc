#include "Content.h"

#include "Status.h"
#include "foundation/base/FileDescriptor.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Velantrix::Tool {

namespace {

constexpr std::size_t kMaxInput = std::size_t{128} * 1024 * 1024;  // what the library reads at most

[[noreturn]] void fail(const std::string& name, int error) {
  throw ToolError(systemErrorText(name, error));
}

void requireReadable(const struct stat& status, const std::string& file) {
  if (S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode)) return;
  if (S_ISDIR(status.st_mode)) fail(file, EISDIR);
  throw ToolError(file + ": Not a regular file.");
}

std::string readAll(int descriptor, const std::string& name) {
  constexpr std::size_t kChunk = std::size_t{64} * 1024;
  std::string content;
  std::size_t used = 0;
  for (;;) {
    if (content.size() - used < kChunk) content.resize(content.size() * 2 + kChunk);
    const ssize_t count = ::read(descriptor, content.data() + used, content.size() - used);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      fail(name, errno);
    }
    used += static_cast<std::size_t>(count);
    if (used > kMaxInput) throw ToolError(name + ": more than can be read");
  }
  content.resize(used);
  return content;
}

}  // namespace

std::string nameOf(const std::string& file) {
  return file == kStandardInput ? "standard input" : file;
}

std::string contentOf(const std::string& file) {
  if (file == kStandardInput) return readAll(STDIN_FILENO, nameOf(file));
  // A look before the opening, because opening a device can already have an effect; and another
  // after it, because the first may have been at another file.
  struct stat status = {};
  if (::stat(file.c_str(), &status) != 0) fail(file, errno);
  requireReadable(status, file);
  const FileDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!descriptor.valid()) fail(file, errno);
  if (::fstat(descriptor.get(), &status) != 0) fail(file, errno);
  requireReadable(status, file);
  if (S_ISREG(status.st_mode) && static_cast<std::size_t>(status.st_size) > kMaxInput) {
    throw ToolError(file + ": more than can be read");
  }
  return readAll(descriptor.get(), file);
}

}  // namespace Velantrix::Tool
