#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/base/OwnedDirectory.h"
#include "foundation/base/TemporaryName.h"

#include <velantrix/Assert.h>
#include <velantrix/MediaOut.h>
#include <velantrix/Time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace Velantrix {

namespace {

constexpr Origin kHere{"FileMediaOut", "MediaOut"};

constexpr std::size_t kMaxName = 255;  // NAME_MAX of every file system in use
constexpr long kLeftoverAge = 3600;

// The whole content of one file to the end of another. 0, or the error.
int copyAll(int from, int to) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): pread() writes what is read.
  std::array<char, std::size_t{16} * 1024> chunk;
  off_t position = 0;
  while (true) {
    const ssize_t got = ::pread(from, chunk.data(), chunk.size(), position);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) return 0;
    if (const int error = writeAll(to, chunk.data(), static_cast<std::size_t>(got))) return error;
    position += got;
  }
}

}  // namespace

MediaOut::~MediaOut() = default;

// Everything happens relative to the open directory: the file and its target stay in one directory
// even when that is renamed meanwhile.
struct FileMediaOut::State {
  explicit State(const std::string& targetPath);
  ~State() { removeTemporary(); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void openTemporary();
  void removeTemporary() noexcept;
  void removeLeftovers() const noexcept;
  void syncDirectory();
  void requireUsable() const;
  [[noreturn]] void fail(int error, unsigned int line = __builtin_LINE());

  std::string path;
  std::string name;
  std::string temporaryStem;  // what temporary names have of the target's
  FileDescriptor directory;
  bool directoryReadable = true;
  FileDescriptor file;    // what was written last, published or not
  std::string temporary;  // its name while it is not published
  bool failed = false;
};

FileMediaOut::State::State(const std::string& targetPath) : path(targetPath) {
  systemPath(path);
  const std::size_t slash = path.rfind('/');
  const std::string directoryName = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty()) fail(path.empty() ? ENOENT : EISDIR);
  temporaryStem = name.substr(0, kMaxName - kTemporaryMark.size() - kTemporaryDigits);

  directory = FileDescriptor(::open(directoryName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid() && errno == EACCES) {
    // A directory that may be written but not listed: all but the two extras below works.
    directoryReadable = false;
    directory = FileDescriptor(::open(directoryName.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  if (!directory.valid()) fail(errno);

  // rename() would put a file in the place of a device, a socket or a FIFO.
  struct stat status = {};
  if (::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISDIR(status.st_mode)) fail(EISDIR);
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) fail(EINVAL);
  } else if (errno != ENOENT) {
    fail(errno);
  }
  removeLeftovers();
  openTemporary();
}

void FileMediaOut::State::openTemporary() {
  constexpr int kAttempts = 16;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    temporary = temporaryStem + newTemporarySuffix();
    // The kernel takes the umask off the mode. Reading is for going on after a flush.
    constexpr int kFlags = O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor made(::openat(directory.get(), temporary.c_str(), kFlags, mode_t{0666}));
    if (made.valid()) {
      file = std::move(made);
      return;
    }
    const int error = errno;
    temporary.clear();  // it is not ours
    if (error != EEXIST && error != EINTR) fail(error);
  }
  fail(EEXIST);
}

void FileMediaOut::State::removeTemporary() noexcept {
  if (temporary.empty()) return;
  static_cast<void>(::unlinkat(directory.get(), temporary.c_str(), 0));
  temporary.clear();
}

// Tidying up is a courtesy: whatever fails here does not keep anybody from writing.
void FileMediaOut::State::removeLeftovers() const noexcept {
  if (!directoryReadable) return;
  FileDescriptor again(::openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!again.valid()) return;
  const OwnedDirectory listing(::fdopendir(again.get()));
  if (listing == nullptr) return;
  static_cast<void>(again.release());  // the listing closes it

  const Time oldest = Time::then(-kLeftoverAge, false);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread reads from this stream.
  while (const dirent* const entry = ::readdir(listing.get())) {
    const std::string_view candidate = entry->d_name;
    if (!candidate.starts_with(temporaryStem)) continue;
    if (!isTemporarySuffix(candidate.substr(temporaryStem.size()))) continue;
    struct stat status = {};
    if (::fstatat(directory.get(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (!S_ISREG(status.st_mode) || !(Time::then(status.st_mtime, true) < oldest)) continue;
    static_cast<void>(::unlinkat(directory.get(), entry->d_name, 0));
  }
}

void FileMediaOut::State::syncDirectory() {
  if (!directoryReadable || ::fsync(directory.get()) == 0) return;
  // Some file systems cannot sync a directory, and say so; then there is no more to be done.
  if (errno != EINVAL && errno != ENOTSUP && errno != EROFS) fail(errno);
}

void FileMediaOut::State::requireUsable() const {
  if (!failed) return;
  Velantrix::fail(kHere, path + ": An earlier write failed.");
}

void FileMediaOut::State::fail(int error, unsigned int line) {
  failed = true;
  removeTemporary();
  Velantrix::fail(kHere, systemErrorText(path, error), line);
}

FileMediaOut::FileMediaOut(const std::string& path) : state_(std::make_unique<State>(path)) {}
FileMediaOut::~FileMediaOut() = default;

void FileMediaOut::write(const void* data, std::size_t length) {
  PKX509_ASSERT(data != nullptr || length == 0);
  State& state = *state_;
  state.requireUsable();
  if (length == 0) return;
  if (state.temporary.empty()) {
    // What is published must not change under its readers: go on in a copy.
    const FileDescriptor published = std::move(state.file);
    state.openTemporary();
    if (const int error = copyAll(published.get(), state.file.get())) state.fail(error);
  }
  if (const int error = writeAll(state.file.get(), data, length)) state.fail(error);
}

void FileMediaOut::flush() {
  State& state = *state_;
  state.requireUsable();
  if (state.temporary.empty()) return;
  if (::fsync(state.file.get()) != 0) state.fail(errno);
  const int directory = state.directory.get();
  if (::renameat(directory, state.temporary.c_str(), directory, state.name.c_str()) != 0) {
    state.fail(errno);
  }
  state.temporary.clear();
  state.syncDirectory();
}

StringMediaOut::StringMediaOut() = default;
StringMediaOut::~StringMediaOut() = default;

void StringMediaOut::write(const void* data, std::size_t length) {
  PKX509_ASSERT(data != nullptr || length == 0);
  if (length != 0) text_.append(static_cast<const char*>(data), length);
}

void StringMediaOut::flush() {}

}  // namespace Velantrix
