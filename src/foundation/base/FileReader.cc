#include "foundation/base/FileReader.h"

#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace Velantrix {

namespace {

constexpr Origin kHere{"File::Reader", "FileReader"};

void requireReadable(const struct stat& status, const std::string& name) {
  if (S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode)) return;
  if (S_ISDIR(status.st_mode)) failSystem(kHere, name, EISDIR);
  fail(kHere, name + ": Not a regular file.");
}

FileDescriptor openToRead(const std::string& name, struct stat& status) {
  // A look before the opening, because opening a device can already have an effect; and another
  // after it, because the first may have been at another file.
  if (::stat(systemPath(name), &status) != 0) failSystem(kHere, name, errno);
  requireReadable(status, name);
  FileDescriptor file(::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.valid() || ::fstat(file.get(), &status) != 0) {
    failSystem(kHere, name, errno);
  }
  requireReadable(status, name);
  return file;
}

template <class Content>
Content readAll(const FileDescriptor& file, off_t hint, const std::string& name,
                std::size_t limit) {
  // The size is a hint: a FIFO has none, and a file can grow. One byte more than it makes the end
  // visible without a second round, and one byte more than the limit shows that it is passed.
  constexpr std::size_t kChunk = std::size_t{64} * 1024;
  const std::size_t most = limit + 1;
  const auto size = static_cast<std::size_t>(std::max<off_t>(hint, 0));
  Content content;
  std::size_t used = 0;
  if (size > limit) fail(kHere, name + ": The file is too large.");
  content.resize(std::min(most, size == 0 ? kChunk : size + 1));
  while (true) {
    const ssize_t got = ::read(file.get(), content.data() + used, content.size() - used);
    if (got < 0) {
      if (errno == EINTR) continue;
      failSystem(kHere, name, errno);
    }
    if (got == 0) break;
    used += static_cast<std::size_t>(got);
    if (used > limit) fail(kHere, name + ": The file is too large.");
    if (used == content.size()) content.resize(std::min(most, content.size() * 2));
  }
  content.resize(used);
  return content;
}

template <class Content>
Content readWhole(const File::Path& path, std::size_t limit) {
  struct stat status = {};
  const FileDescriptor file = openToRead(path.asString(), status);
  return readAll<Content>(file, status.st_size, path.asString(), limit);
}

}  // namespace

std::vector<unsigned char> readFile(const File::Path& path, std::size_t limit) {
  return readWhole<std::vector<unsigned char>>(path, limit);
}

Octets readOctets(const File::Path& path, std::size_t limit) {
  return readWhole<Octets>(path, limit);
}

FileRead readFileWithStamp(const File::Path& path, std::size_t limit) {
  const std::chrono::nanoseconds begin = FileStamp::realTime();
  struct stat status = {};
  const FileDescriptor file = openToRead(path.asString(), status);
  FileRead read{.content = {}, .stamp = FileStamp::of(status)};
  read.content = readAll<Octets>(file, status.st_size, path.asString(), limit);
  read.lasts = read.stamp.regular &&
               read.content.size() == static_cast<std::size_t>(read.stamp.size) &&
               read.stamp.isSettled(begin) && FileStamp::of(file.get()) == read.stamp &&
               isOnLocalFileSystem(file.get());
  return read;
}

}  // namespace Velantrix
