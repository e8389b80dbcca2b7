#include "foundation/base/FileStamp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <sys/vfs.h>

namespace Velantrix {

namespace {

std::atomic<std::int64_t> coarseTick{1};
std::atomic<std::int64_t> clockAhead{0};

std::int64_t nanoseconds(const timespec& time) noexcept {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const std::int64_t exact = std::int64_t{time.tv_sec} * kSecond + time.tv_nsec;
  const std::int64_t tick = coarseTick.load(std::memory_order_relaxed);
  return tick == 1 ? exact : exact - exact % tick;
}

// By statfs(2), where most of them are listed.
constexpr std::array<std::uint32_t, 14> kLocalFileSystems{
    0x0000EF53,  // ext2, ext3, ext4
    0x58465342,  // XFS
    0x9123683E,  // Btrfs
    0x01021994,  // tmpfs
    0x858458F6,  // ramfs
    0x794C7630,  // overlayfs
    0xF2F52010,  // F2FS
    0x2FC12FC1,  // ZFS
    0xCA451A4E,  // bcachefs
    0x73717368,  // SquashFS
    0xE0F5E1E2,  // EROFS
    0x3153464A,  // JFS
    0x00009660,  // ISO 9660
    0x24051905   // UBIFS
};

template <class Ask>
bool isLocal(const Ask& ask) noexcept {
  struct statfs status = {};
  int result = 0;
  do {
    result = ask(status);
  } while (result != 0 && errno == EINTR);
  return result == 0 &&
         std::find(kLocalFileSystems.begin(), kLocalFileSystems.end(),
                   static_cast<std::uint32_t>(status.f_type)) != kLocalFileSystems.end();
}

}  // namespace

FileStamp FileStamp::of(const struct stat& status) noexcept {
  return {status.st_dev,
          status.st_ino,
          status.st_size,
          nanoseconds(status.st_mtim),
          nanoseconds(status.st_ctim),
          S_ISREG(status.st_mode)};
}

std::optional<FileStamp> FileStamp::at(const char* path) noexcept {
  struct stat status = {};
  if (::stat(path, &status) != 0) return std::nullopt;
  return of(status);
}

std::optional<FileStamp> FileStamp::of(int descriptor) noexcept {
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0) return std::nullopt;
  return of(status);
}

std::chrono::nanoseconds FileStamp::realTime() noexcept {
  timespec now{};
  // Where a sandbox forbids the clock, no file is settled.
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0) return std::chrono::nanoseconds::min();
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec) +
         std::chrono::nanoseconds(clockAhead.load(std::memory_order_relaxed));
}

bool FileStamp::isSettled(std::chrono::nanoseconds readAt) const noexcept {
  constexpr std::chrono::nanoseconds kCoarsest = std::chrono::seconds(2);
  return std::chrono::nanoseconds(std::max(modified, changed)) < readAt &&
         readAt - std::chrono::nanoseconds(std::max(modified, changed)) >= kCoarsest;
}

bool isOnLocalFileSystem(int descriptor) noexcept {
  return isLocal([descriptor](struct statfs& status) { return ::fstatfs(descriptor, &status); });
}

bool isOnLocalFileSystem(const char* path) noexcept {
  return isLocal([path](struct statfs& status) { return ::statfs(path, &status); });
}

CoarseStamps::CoarseStamps(std::chrono::nanoseconds tick) noexcept
    : former_(coarseTick.exchange(tick.count())) {}

CoarseStamps::~CoarseStamps() { coarseTick = former_; }

StampClockAhead::StampClockAhead(std::chrono::nanoseconds ahead) noexcept
    : former_(clockAhead.exchange(ahead.count())) {}

StampClockAhead::~StampClockAhead() { clockAhead = former_; }

}  // namespace Velantrix
