#include "retrieval/DeskProcess.h"

#include "foundation/base/NoCancellation.h"
#include "foundation/net/Cancellation.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

// How many files, and how many octets, one process writes before it looks again how much there is.
constexpr unsigned int kWrites = 64;
constexpr std::size_t kBytes = std::size_t{16} * 1024 * 1024;

// It is used until the last thread has ended, so nothing takes it down.
alignas(DeskProcess) std::array<unsigned char, sizeof(DeskProcess)> storage;
DeskProcess* process = nullptr;
std::atomic<unsigned int> forks{0};

}  // namespace

DeskProcess& DeskProcess::instance() {
  static DeskProcess* const made = make();
  return *made;
}

DeskProcess* DeskProcess::make() {
  process = new (storage.data()) DeskProcess;
  // Without the handlers a child could keep a lock; that needs memory to be as short as can be.
  if (::pthread_atfork(beforeFork, afterForkInParent, afterForkInChild) != 0)
    throw std::bad_alloc();
  return process;
}

unsigned int DeskProcess::generation() noexcept { return forks.load(std::memory_order_relaxed); }

void DeskProcess::beforeFork() noexcept { process->mutex_.lock(); }

void DeskProcess::afterForkInParent() noexcept { process->mutex_.unlock(); }

// The threads that wait on the parent's condition are not in the child, and it would wait for them when it
// is used or taken down: so all is made anew in its place. What it had of the heap is lost.
void DeskProcess::afterForkInChild() noexcept {
  for (const int descriptor : process->descriptors_) static_cast<void>(::close(descriptor));
  forks.fetch_add(1, std::memory_order_relaxed);
  process->mutex_.unlock();
  process = new (storage.data()) DeskProcess;
}

bool DeskProcess::enter(const std::string& key, Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (entered_.count(key) != 0) {
    if (Cancellation::requested()) return false;
    const Clock::time_point now = Clock::now();
    if (now >= deadline) return false;
    left_.wait_until(lock, std::min(deadline, now + FetchDesk::kPoll));
  }
  entered_.insert(key);
  return true;
}

void DeskProcess::leave(const std::string& key) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    entered_.erase(key);
  }
  left_.notify_all();
}

// No fork comes between the opening and the note of it.
int DeskProcess::open(int directory, const char* name, int flags, mode_t mode) {
  const std::lock_guard<std::mutex> lock(mutex_);
  descriptors_.reserve(descriptors_.size() + 1);
  const int descriptor = ::openat(directory, name, flags, mode);
  if (descriptor >= 0) descriptors_.push_back(descriptor);
  return descriptor;
}

void DeskProcess::close(int descriptor) noexcept {
  const NoCancellation untilReturn;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find(descriptors_.begin(), descriptors_.end(), descriptor);
  if (found != descriptors_.end()) descriptors_.erase(found);
  static_cast<void>(::close(descriptor));
}

bool DeskProcess::isToTidy(std::size_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++writes_;
  bytes_ += bytes;
  if (std::exchange(tidied_, true) && writes_ < kWrites && bytes_ < kBytes) return false;
  writes_ = 0;
  bytes_ = 0;
  return true;
}

bool DeskProcess::isToWarn() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return !std::exchange(warned_, true);
}

EnteredPlace::EnteredPlace(std::string key, DeskProcess::Clock::time_point deadline)
    : key_(std::move(key)),
      generation_(DeskProcess::generation()),
      entered_(DeskProcess::instance().enter(key_, deadline)) {}

EnteredPlace::~EnteredPlace() {
  if (entered()) DeskProcess::instance().leave(key_);
}

DeskLock::DeskLock(int directory, const char* name, int flags, mode_t mode)
    : generation_(DeskProcess::generation()),
      descriptor_(DeskProcess::instance().open(directory, name, flags, mode)),
      error_(descriptor_ < 0 ? errno : 0) {}

// A child that was forked just now may still have the same lock: closing the descriptor here would leave
// it.
DeskLock::~DeskLock() {
  if (descriptor_ < 0 || generation_ != DeskProcess::generation()) return;
  static_cast<void>(::flock(descriptor_, LOCK_UN));
  DeskProcess::instance().close(descriptor_);
}

int DeskLock::take() noexcept { return ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0 ? 0 : errno; }

bool DeskLock::isNamed(int directory, const char* name) const noexcept {
  struct stat own = {};
  struct stat named = {};
  return ::fstat(descriptor_, &own) == 0 &&
         ::fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

void DeskLock::touch() const noexcept { static_cast<void>(::futimens(descriptor_, nullptr)); }

}  // namespace Velantrix::Crypto::PKX509
