#include "crl/CRLCache.h"

#include "foundation/base/DirectoryLock.h"
#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/base/FileReader.h"
#include "foundation/base/Hex.h"
#include "foundation/base/TemporaryName.h"
#include "foundation/model/CRLParts.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/net/Cancellation.h"
#include "foundation/run/Counters.h"
#include "store/HashFileHeader.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/File.h>
#include <velantrix/Time.h>

#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <optional>
#include <string_view>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"CRLCache", "CRLCache"};

// How long a writer waits for the one before it. One that is stopped in the middle, and whoever else
// may read the directory, can keep the lock; then nothing is stored, which costs a fetch.
constexpr std::chrono::milliseconds kLockTime{300};

// Who finds the cache full frees a sixteenth of it: looking into every file, for which that one
// makes way, is then not to be done again for each of the next.
constexpr unsigned int kFreedShare = 16;

// "4a6481c9.r0", and the file beside it that a killed writer leaves.
bool isCacheName(std::string_view name) {
  constexpr std::size_t kKeyDigits = 8;
  constexpr std::string_view kSuffix = ".r0";
  const std::string_view key = name.substr(0, name.find_first_not_of(kLowerHexDigits));
  if (key.empty() || key.size() > kKeyDigits) return false;
  // Keys are written without zeros in front; `openssl rehash` writes them with.
  if (key.size() > 1 && key.front() == '0') return false;
  name.remove_prefix(key.size());
  if (!name.starts_with(kSuffix)) return false;
  name.remove_prefix(kSuffix.size());
  return name.empty() || isTemporarySuffix(name);
}

using CachedFile = CRLCache::CachedFile;

class Collector : public File::Processor {
 public:
  int process(const File::Path& path) override {
    try {
      const File::Status status = path.status(false);
      if (status.isRegular()) files.push_back({path, status.size(), status.creationTime()});
    } catch (const std::exception&) {
      // It went away meanwhile, as it may when several processes share the cache.
    }
    return 0;
  }

  std::vector<CachedFile> files;
};

// Keeps other writers out, or throws.
class OnlyWriter {
 public:
  explicit OnlyWriter(const std::string& directory)
      : lock_(directory, kLockTime, Cancellation::requested) {
    if (!lock_.held()) fail(kHere, directory + ": Another writer is at it.");
  }

 private:
  DirectoryLock lock_;
};

// None where the directory is missing.
std::vector<CachedFile> filesIn(const std::string& directory) {
  Collector collector;
  File::Selector(File::Path(directory), collector, isCacheName).start();
  return std::move(collector.files);
}

bool isLeftover(const File::Path& path) {
  return path.name().find(kTemporaryMark) != std::string::npos;
}

// Appends up to `wanted` octets that follow. False at the end of the file, and when it cannot be
// read.
bool readOn(int file, std::string& content, std::size_t wanted) {
  const std::size_t had = content.size();
  content.resize(had + wanted);
  ssize_t got = 0;
  do {
    got = ::read(file, content.data() + had, wanted);
  } while (got < 0 && errno == EINTR);
  content.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  return got > 0;
}

// When the CRL in the file runs out, by the file's header; none when it does not say. Hardly a URI
// needs more than the first block, and there may be a thousand files to look into.
std::optional<Time> expiryOf(const File::Path& path) {
  constexpr std::size_t kBlock = std::size_t{4} * 1024;
  // What was a regular file a moment ago may be a FIFO now: neither is waited for nor followed.
  const FileDescriptor file(
      ::open(systemPath(path.asString()), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (!file.valid()) return std::nullopt;
  std::string head;
  while (head.size() < HashFileHeader::kMaximumSize && readOn(file.get(), head, kBlock)) {
    // A number that the block cuts off is not whole.
    if (head.find("-----BEGIN") != std::string::npos) break;
  }
  return HashFileHeader::parse(head).expires;
}

// Whether nobody will read the file any more. The lock is held, so no writer is at work, and what
// has a temporary name is what a killed one left.
bool isSpent(const File::Path& path, const Time& now) {
  if (isLeftover(path)) return true;
  const std::optional<Time> expires = expiryOf(path);
  return expires.has_value() && *expires < now;
}

bool isRegular(const File::Path& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(std::filesystem::symlink_status(path.asString(), error));
}

// True when it is gone, by whomever.
bool removeFile(const File::Path& path, std::error_code& error) {
  const bool removed = std::filesystem::remove(path.asString(), error);
  if (removed && !isLeftover(path)) count(Statistics::Counter::kCacheRemoved);
  return removed || !error;
}
bool removeFile(const File::Path& path) {
  std::error_code error;
  return removeFile(path, error);
}
// For who has promised that it goes.
void requireRemoved(const File::Path& path) {
  std::error_code error;
  if (!removeFile(path, error)) failSystem(kHere, path.asString(), error.value());
}

// What can still be written.
struct Disk {
  explicit Disk(const std::string& directory) {
    struct statvfs status = {};
    if (::statvfs(systemPath(directory), &status) != 0) return;
    bytes = std::uint64_t{status.f_bavail} * status.f_frsize;
    // Some file systems make as many as are needed, and say that they have none.
    if (status.f_files != 0) files = status.f_favail;
  }

  std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t files = std::numeric_limits<std::uint64_t>::max();
};

// What a file takes on the disk, about.
std::uint64_t onDisk(std::uint64_t size) {
  constexpr std::uint64_t kBlock = 4096;
  return (size + kBlock - 1) / kBlock * kBlock;
}

// Whether the file is one for the URI and has that CRL in it.
bool holds(const File::Path& path, const Uri& uri, const RefCertificateRevocationList& crl) {
  const std::vector<unsigned char> content = readFile(path);
  const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
  const std::string& canonical = uri.canonicalized();
  if (HashFileHeader::parse(text).uri.value_or(canonical) != canonical) return false;
  const RefCertificateRevocationList held = readFirstCRL(content.data(), content.size());
  return !held.empty() && isSame(*held.get(), *crl.get());
}

}  // namespace

void CRLCache::add(const Uri& uri, const std::list<RefCertificateRevocationList>& crls) {
  if (crls.empty()) return;
  Content content = contentFor(uri, crls.back());
  content.write = [&] { HashDirLookupMethod(directory_).add(uri, crls); };
  write(uri, content);
  count(Statistics::Counter::kCacheStored);
}

// In PEM there are four characters for three octets, and line ends.
CRLCache::Content CRLCache::contentFor(const Uri& uri, const RefCertificateRevocationList& crl) {
  constexpr std::uint64_t kFrame = 4096;
  const std::uint64_t size = derSizeOf(*crl.get());
  return {.atMost = size / 2 * 3 + uri.canonicalized().size() + kFrame, .atLeast = size / 3 * 4};
}

bool CRLCache::write(const Uri& uri, const Content& content) {
  const OnlyWriter only(directory_);
  if (content.wanted && !content.wanted()) return false;
  makeRoom(HashDirLookupMethod::fileName(uri), content.atMost);
  try {
    content.write();
  } catch (const std::exception&) {
    if (!makeRoomOnDisk(content.atMost, content.atLeast)) throw;
    content.write();
  }
  return true;
}

void CRLCache::remove(const Uri& uri, const RefCertificateRevocationList& crl) {
  const File::Path path = fileFor(uri);
  if (!isRegular(path)) return;  // it need not have come from the cache
  const DirectoryLock lock(directory_, kLockTime, Cancellation::requested);
  if (lock.held() && holds(path, uri, crl)) removeFile(path);
}

bool CRLCache::removeIf(const Uri& uri, const std::function<bool(const File::Path&)>& wanted) {
  const File::Path path = fileFor(uri);
  if (!isRegular(path)) return false;
  const OnlyWriter only(directory_);
  if (!isRegular(path) || !wanted(path)) return false;
  requireRemoved(path);
  return true;
}

std::vector<std::string> CRLCache::removeAll() {
  const OnlyWriter only(directory_);
  std::vector<std::string> removed;
  for (const CachedFile& file : filesIn(directory_)) {
    requireRemoved(file.path);
    removed.push_back(file.path.name());
  }
  return removed;
}

File::Path CRLCache::fileFor(const Uri& uri) const {
  return File::Path(directory_, HashDirLookupMethod::fileName(uri));
}

std::vector<CRLCache::CachedFile> CRLCache::files() const {
  std::error_code error;
  const auto status = std::filesystem::status(systemPath(directory_), error);
  if (status.type() == std::filesystem::file_type::not_found) failSystem(kHere, directory_, ENOENT);
  std::vector<CachedFile> files = filesIn(directory_);
  std::erase_if(files, [](const CachedFile& file) { return isLeftover(file.path); });
  return files;
}

void CRLCache::makeRoom(const std::string& replaced, std::uint64_t bytes) {
  std::vector<CachedFile> files = filesIn(directory_);
  std::erase_if(files, [&](const CachedFile& file) { return file.path.name() == replaced; });
  std::size_t number = files.size() + 1;
  for (const CachedFile& file : files) bytes += file.size;
  const auto fit = [&](const Limits& limits) {
    return number <= limits.files && bytes <= limits.bytes;
  };
  noteCacheSize(number, bytes);
  if (fit(limits_)) return;

  const auto remove = [&](const CachedFile& file) {
    if (!removeFile(file.path)) return;
    --number;
    bytes -= file.size;
  };
  const Time now = Time::now();
  std::erase_if(files, [&](const CachedFile& file) {
    const bool spent = isSpent(file.path, now);
    if (spent) remove(file);
    return spent;
  });
  const Limits freed{limits_.files - limits_.files / kFreedShare,
                     limits_.bytes - limits_.bytes / kFreedShare};
  std::sort(files.begin(), files.end(),
            [](const CachedFile& a, const CachedFile& b) { return a.created < b.created; });
  for (auto oldest = files.begin(); oldest != files.end() && !fit(freed); ++oldest) {
    remove(*oldest);
  }
  noteCacheSize(number, bytes);
}

bool CRLCache::makeRoomOnDisk(std::uint64_t atMost, std::uint64_t atLeast) {
  Disk disk(directory_);
  if (disk.bytes >= atMost && disk.files > 0) return false;
  std::vector<CachedFile> files = filesIn(directory_);
  const Time now = Time::now();
  std::erase_if(files, [&](const CachedFile& file) { return !isSpent(file.path, now); });
  for (const CachedFile& file : files) disk.bytes += onDisk(file.size);
  disk.files += files.size();
  if (files.empty() || disk.bytes < atLeast || disk.files == 0) return false;
  for (const CachedFile& file : files) removeFile(file.path);
  return true;
}

}  // namespace Velantrix::Crypto::PKX509
