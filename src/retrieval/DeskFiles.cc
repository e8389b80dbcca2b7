#include "retrieval/DeskFiles.h"

#include "foundation/base/Hex.h"
#include "foundation/base/OwnedDirectory.h"
#include "foundation/base/TemporaryName.h"

#include <velantrix/Exception.h>
#include <velantrix/Time.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// A FIFO in the place of a file is not waited for.
constexpr int kOpenFile = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// After which what is written is as good as never: no delivery counts any more, and whoever began a file
// has been killed.
constexpr std::int64_t kSpentAge = 2 * FetchDesk::kDeliveryTime.count();

constexpr std::size_t kDigestDigits = 64;

// Of what may lie there: what of it is full, and what is left of it then, so that the next one need not
// begin anew.
constexpr unsigned int kShares = 16;
constexpr unsigned int kFull = 12;
constexpr unsigned int kFreed = 11;

constexpr mode_t kReadAndWrite = 0666;

struct DeskFile {
  enum class Kind { kLock, kMark, kDelivery, kIssuers, kTemporary };

  std::string name;
  Kind kind;
  std::int64_t changed;
  std::uint64_t size;

  bool isSpent(std::int64_t now) const {
    if (kind == Kind::kLock || kind == Kind::kMark || kind == Kind::kIssuers) return false;
    return changed < now - kSpentAge || changed > now + kSpentAge;
  }
};

// None for what the desk has not named.
std::optional<DeskFile::Kind> kindOf(std::string_view name) {
  if (name.find_first_not_of(kLowerHexDigits) != kDigestDigits) return std::nullopt;
  name.remove_prefix(kDigestDigits);
  if (name == DeskFiles::kLock) return DeskFile::Kind::kLock;
  if (name == DeskFiles::kMark) return DeskFile::Kind::kMark;
  if (name == DeskFiles::kDelivery) return DeskFile::Kind::kDelivery;
  if (name == DeskFiles::kIssuers) return DeskFile::Kind::kIssuers;
  const std::size_t mark = name.find(kTemporaryMark);
  if (mark == std::string_view::npos || !isTemporarySuffix(name.substr(mark))) return std::nullopt;
  return DeskFile::Kind::kTemporary;
}

// All that can be told of; tidying up is a courtesy.
std::vector<DeskFile> filesIn(int directory) {
  std::vector<DeskFile> files;
  FileDescriptor again(::openat(directory, ".", kOpenDirectory));
  if (!again.valid()) return files;
  const OwnedDirectory listing(::fdopendir(again.get()));
  if (listing == nullptr) return files;
  static_cast<void>(again.release());  // the listing closes it
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread reads from this stream.
  while (const dirent* const entry = ::readdir(listing.get())) {
    const std::optional<DeskFile::Kind> kind = kindOf(entry->d_name);
    struct stat status = {};
    if (!kind || ::fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(status.st_mode)) continue;
    files.push_back({entry->d_name, *kind, status.st_mtime,
                     static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0))});
  }
  return files;
}

// Whoever waits for the lock by a file that is gone by then sees that, and takes the one that has the
// name (FetchDesk::turn): so it goes only while nobody else has it.
bool removeLock(int directory, const char* name) {
  DeskLock lock(directory, name, kOpenFile, 0);
  return lock.error() == 0 && lock.take() == 0 && lock.isNamed(directory, name) &&
         ::unlinkat(directory, name, 0) == 0;
}

// True when it is gone, by whomever.
bool removeFile(int directory, const DeskFile& file) {
  const char* const name = file.name.c_str();
  if (file.kind == DeskFile::Kind::kLock) return removeLock(directory, name);
  return ::unlinkat(directory, name, 0) == 0 || errno == ENOENT;
}

}  // namespace

DeskFiles::DeskFiles(const std::string& cache, const Limits& limits)
    : cache_(cache), directory_(cache + '/' + FetchDesk::kSubdirectory), limits_(limits) {
  systemPath(directory_);
}

std::string DeskFiles::digestOf(const std::string& place) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(place.data(), place.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += kLowerHexDigits[digest[i] >> 4];
    text += kLowerHexDigits[digest[i] & 0x0f];
  }
  return text;
}

FileDescriptor DeskFiles::open() const {
  return FileDescriptor(::open(directory_.c_str(), kOpenDirectory));
}

FileDescriptor DeskFiles::openToWrite(int& error) const {
  FileDescriptor directory = open();
  if (!directory.valid() && errno == ENOENT && make()) directory = open();
  error = directory.valid() ? 0 : errno;
  return directory;
}

// The umask is that of one process; who may write the cache is what its owner has said.
bool DeskFiles::make() const {
  struct stat cache = {};
  if (::stat(cache_.c_str(), &cache) != 0) return false;
  if (::mkdir(directory_.c_str(), S_IRWXU) != 0) return errno == EEXIST;
  const FileDescriptor made = open();
  struct stat own = {};
  if (!made.valid() || ::fstat(made.get(), &own) != 0) return false;
  mode_t mode = S_IRWXU | (own.st_mode & S_ISGID) | (cache.st_mode & S_ISVTX);
  if ((cache.st_mode & S_IWGRP) != 0) mode |= S_IRWXG;
  if ((cache.st_mode & S_IWOTH) != 0) mode |= S_IRWXO;
  static_cast<void>(::fchmod(made.get(), mode));
  return true;
}

std::optional<std::string> DeskFiles::read(const std::string& name, std::size_t limit) const {
  const FileDescriptor directory = open();
  if (!directory.valid()) return std::nullopt;
  const FileDescriptor file(::openat(directory.get(), name.c_str(), kOpenFile));
  struct stat status = {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode) || status.st_size < 0) return std::nullopt;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > limit) return std::nullopt;
  std::string content(size, '\0');
  for (std::size_t used = 0; used < size;) {
    const ssize_t got = ::read(file.get(), content.data() + used, size - used);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    used += static_cast<std::size_t>(got);
  }
  return content;
}

// After a crash of the machine a delivery is old, and a mark that is not whole is none.
int DeskFiles::write(const std::string& name, std::string_view head, std::string_view rest,
                     Lasting lasting) const {
  int error = 0;
  const FileDescriptor directory = openToWrite(error);
  if (error != 0) return error;
  std::string temporary;
  try {
    temporary = name + newTemporarySuffix();
  } catch (const Exception&) {
    return EIO;  // no random numbers
  }
  constexpr int kFlags = O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC;
  const FileDescriptor file(::openat(directory.get(), temporary.c_str(), kFlags, kReadAndWrite));
  if (!file.valid()) return errno;
  error = writeAll(file.get(), head.data(), head.size());
  if (error == 0) error = writeAll(file.get(), rest.data(), rest.size());
  if (error == 0 && lasting == Lasting::kYes && ::fsync(file.get()) != 0) error = errno;
  if (error == 0 &&
      ::renameat(directory.get(), temporary.c_str(), directory.get(), name.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) static_cast<void>(::unlinkat(directory.get(), temporary.c_str(), 0));
  return error;
}

void DeskFiles::remove(const std::string& name) const {
  const FileDescriptor directory = open();
  if (directory.valid()) static_cast<void>(::unlinkat(directory.get(), name.c_str(), 0));
}

std::vector<std::string> DeskFiles::digests(std::string_view kind) const {
  std::vector<std::string> found;
  const FileDescriptor directory = open();
  if (!directory.valid()) return found;
  for (const DeskFile& file : filesIn(directory.get())) {
    if (found.size() == limits_.files) break;
    if (file.name.substr(kDigestDigits) == kind)
      found.push_back(file.name.substr(0, kDigestDigits));
  }
  std::sort(found.begin(), found.end());
  return found;
}

// Reading is right enough for a lock, and what others in the cache's group have made may be no more.
std::unique_ptr<DeskLock> DeskFiles::lock(const std::string& name, int& error) const {
  const FileDescriptor directory = openToWrite(error);
  if (error != 0) return nullptr;
  auto lock =
      std::make_unique<DeskLock>(directory.get(), name.c_str(), kOpenFile | O_CREAT, kReadAndWrite);
  error = lock->error();
  if (error != 0) lock.reset();
  return lock;
}

bool DeskFiles::isNamed(const DeskLock& lock, const std::string& name) const {
  const FileDescriptor directory = open();
  return directory.valid() && lock.isNamed(directory.get(), name.c_str());
}

void DeskFiles::makeRoom(std::uint64_t bytes) const {
  const FileDescriptor directory = open();
  if (!directory.valid()) return;
  std::vector<DeskFile> files = filesIn(directory.get());
  const std::int64_t now = Time::now().seconds();
  std::erase_if(files, [&](const DeskFile& file) {
    return file.isSpent(now) && removeFile(directory.get(), file);
  });

  std::size_t count = files.size();
  for (const DeskFile& file : files) bytes += file.size;
  const auto few = [&](unsigned int share) { return count <= limits_.files / kShares * share; };
  const auto small = [&](unsigned int share) { return bytes <= limits_.bytes / kShares * share; };
  if (few(kFull) && small(kFull)) return;
  std::sort(files.begin(), files.end(),
            [](const DeskFile& a, const DeskFile& b) { return a.changed < b.changed; });
  for (const DeskFile& oldest : files) {
    if (few(kFreed) && small(kFreed)) return;
    if (few(kFreed) && oldest.kind != DeskFile::Kind::kDelivery) continue;
    if (!removeFile(directory.get(), oldest)) continue;
    --count;
    bytes -= oldest.size;
  }
}

}  // namespace Velantrix::Crypto::PKX509
