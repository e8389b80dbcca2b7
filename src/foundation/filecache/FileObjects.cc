#include "foundation/filecache/FileObjects.h"

#include "foundation/base/FileReader.h"
#include "foundation/base/ForkLock.h"
#include "foundation/net/Cancellation.h"
#include "foundation/run/VerificationRun.h"

#include <pkx509/FileCache.h>
#include <velantrix/NonCopyable.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Value = FileObjects::Value;
using SharedValue = std::shared_ptr<const Value>;

std::atomic<std::size_t> limitInBytes = FileCache::kDefaultLimit;

// With which privileges files are opened.
struct Credentials {
  static Credentials now() noexcept { return {::geteuid(), ::getegid()}; }

  bool operator==(const Credentials&) const = default;

  uid_t user = 0;
  gid_t group = 0;
};

// Once for a verification.
struct CredentialsSeen {
  bool done = false;
};

struct Key {
  const void* kind;
  std::string_view path;

  bool operator==(const Key&) const = default;
};

struct HashOfKey {
  std::size_t operator()(const Key& key) const noexcept {
    return std::hash<std::string_view>()(key.path) ^ std::hash<const void*>()(key.kind);
  }
};

struct Entry {
  // Nodes of a list and of a table, and the path's characters.
  static constexpr std::size_t kFrame = 192;

  Key key() const noexcept { return {kind, path}; }
  std::size_t memory() const noexcept { return value->memory() + path.capacity() + kFrame; }

  const void* kind;
  std::string path;
  FileStamp stamp;
  SharedValue value;
  std::size_t memoryCounted = 0;
};

// One thread reads, others may wait.
struct Reading {
  FileStamp stamp;    // that they wait for
  SharedValue value;  // which that one has; null where what was read does not last
  bool ended = false;
};

using Leftovers = std::list<Entry>;

}  // namespace

// With the lock held.
struct FileMemory {
  using Question = FileObjects::Question;
  using Entries = std::list<Entry>;

  SharedValue recall(const Question& question, Leftovers& leftovers);
  void keep(const Question& question, const FileStamp& stamp, const SharedValue& value,
            Leftovers& leftovers);
  void forget(const Key& key, Leftovers& leftovers);
  void makeRoom(std::size_t limit, Leftovers& leftovers) noexcept;

  Entries entries;  // those used last stand first
  std::unordered_map<Key, Entries::iterator, HashOfKey> byKey;
  std::size_t bytes = 0;
  Credentials credentials = Credentials::now();  // that all of it was read with

  std::unordered_map<Key, std::shared_ptr<Reading>, HashOfKey> readings;  // keys of who reads
  std::condition_variable_any ended;

  FileMemory* former = nullptr;  // the parent's

 private:
  void count(Entry& entry) noexcept;
  void remove(Entries::iterator entry, Leftovers& leftovers) noexcept;
};

namespace {

// Never destroyed: other threads may verify while the process ends.
constinit FileMemory* sharedMemory = nullptr;

// Threads that read and wait are in the parent. Neither what they wait on nor what they may have been about
// to change is touched again, not even to destroy it.
void s_start_in_child(bool whole) {
  FileMemory* const parents = sharedMemory;
  if (parents == nullptr) return;
  sharedMemory = new FileMemory;
  sharedMemory->former = parents;
  if (!whole) return;
  sharedMemory->entries.swap(parents->entries);
  sharedMemory->byKey.swap(parents->byKey);
  sharedMemory->bytes = parents->bytes;
  sharedMemory->credentials = parents->credentials;
}

ForkLock memoryLock(s_start_in_child);

// What goes is destroyed when the lock is not held any more: a large CRL takes its time.
class Held : private NonCopyable {
 public:
  Held() : lock_(memoryLock) {
    if (sharedMemory == nullptr) sharedMemory = new FileMemory;
  }

  FileMemory* operator->() const noexcept { return sharedMemory; }
  Leftovers& leftovers() noexcept { return leftovers_; }
  std::unique_lock<ForkLock>& lock() noexcept { return lock_; }

 private:
  Leftovers leftovers_;
  std::unique_lock<ForkLock> lock_;
};

}  // namespace

SharedValue FileMemory::recall(const Question& question, Leftovers& leftovers) {
  const auto found = byKey.find({question.kind, question.path.asString()});
  if (found == byKey.end()) return nullptr;
  const Entries::iterator entry = found->second;
  if (entry->stamp != *question.seen || !question.suits(*entry->value)) return nullptr;
  entries.splice(entries.begin(), entries, entry);
  SharedValue value = entry->value;
  count(*entry);
  makeRoom(limitInBytes, leftovers);
  return value;
}

void FileMemory::keep(const Question& question, const FileStamp& stamp, const SharedValue& value,
                      Leftovers& leftovers) {
  forget({question.kind, question.path.asString()}, leftovers);
  if (value->memory() > limitInBytes) return;  // everything else would make way for it
  entries.push_front({question.kind, question.path.asString(), stamp, value});
  try {
    byKey.emplace(entries.front().key(), entries.begin());
  } catch (...) {
    leftovers.splice(leftovers.end(), entries, entries.begin());
    throw;
  }
  count(entries.front());
  makeRoom(limitInBytes, leftovers);
}

void FileMemory::forget(const Key& key, Leftovers& leftovers) {
  const auto found = byKey.find(key);
  if (found != byKey.end()) remove(found->second, leftovers);
}

void FileMemory::makeRoom(std::size_t limit, Leftovers& leftovers) noexcept {
  while (bytes > limit) remove(std::prev(entries.end()), leftovers);
}

void FileMemory::count(Entry& entry) noexcept {
  const std::size_t now = entry.memory();
  bytes += now - std::exchange(entry.memoryCounted, now);
}

void FileMemory::remove(Entries::iterator entry, Leftovers& leftovers) noexcept {
  bytes -= entry->memoryCounted;
  byKey.erase(entry->key());
  leftovers.splice(leftovers.end(), entries, entry);
}

namespace {

// Forgets what others were allowed to read.
void heedCredentials() {
  CredentialsSeen* const seen = VerificationRun::kept<CredentialsSeen>();
  if (seen != nullptr && std::exchange(seen->done, true)) return;
  const Credentials now = Credentials::now();
  Held memory;
  if (memory->credentials == now) return;
  memory->makeRoom(0, memory.leftovers());
  memory->credentials = now;
}

}  // namespace

// Announces what this thread reads, and ends the waiting of others however that ends.
class OwnReading : private NonCopyable {
 public:
  // With the lock held.
  OwnReading(Held& memory, const Key& key, const FileStamp& stamp)
      : key_(key), reading_(std::make_shared<Reading>(Reading{.stamp = stamp, .value = nullptr})) {
    memory->readings.emplace(key_, reading_);
  }
  ~OwnReading() {
    Held memory;
    memory->readings.erase(key_);
    reading_->ended = true;
    memory->ended.notify_all();
  }

  // With the lock held.
  void has(const FileStamp& stamp, const SharedValue& value) noexcept {
    reading_->stamp = stamp;
    reading_->value = value;
  }

 private:
  Key key_;
  std::shared_ptr<Reading> reading_;
};

namespace {

bool mayWait() { return !Cancellation::requested() && VerificationRun::mayGoOn(); }

// False when it has not ended and there is no time left.
bool waitFor(const Reading& reading, Held& memory) {
  // Whoever is asked to stop notices it within 50 ms.
  constexpr std::chrono::milliseconds kSlice{20};
  while (!reading.ended) {
    memory->ended.wait_for(memory.lock(), kSlice);
    if (reading.ended) break;
    memory.lock().unlock();
    const bool goOn = mayWait();
    memory.lock().lock();
    if (!goOn) return false;
  }
  return true;
}

}  // namespace

FileObjects::Value::~Value() = default;

bool FileObjects::isFileToKeep(const std::optional<FileStamp>& seen) noexcept {
  return seen && seen->regular && static_cast<std::uint64_t>(seen->size) <= limitInBytes;
}

FileObjects::Read FileObjects::readFileInto(const File::Path& path, bool forAll,
                                            const MakeValue& make) {
  if (!forAll) {
    Octets content = readOctets(path);
    return {.value = make(content, false)};
  }
  FileRead file = readFileWithStamp(path);
  Read read{.value = make(file.content, file.lasts)};
  if (file.lasts) read.lasts = file.stamp;
  return read;
}

SharedValue FileObjects::readForAll(const Question& question, OwnReading& reading) {
  const Credentials credentials = Credentials::now();
  Read read = question.read(true);
  if (!read.lasts || Credentials::now() != credentials) return std::move(read.value);
  Held memory;
  if (memory->credentials != credentials) return std::move(read.value);
  reading.has(*read.lasts, read.value);
  try {
    memory->keep(question, *read.lasts, read.value, memory.leftovers());
  } catch (const std::bad_alloc&) {
    // It is read again the next time.
  }
  return std::move(read.value);
}

SharedValue FileObjects::ask(const Question& question) {
  if (limitInBytes == 0) return question.read(false).value;
  const Key key{question.kind, question.path.asString()};
  heedCredentials();
  {
    Held memory;
    if (!question.seen) {
      memory->forget(key, memory.leftovers());
    } else if (SharedValue value = memory->recall(question, memory.leftovers())) {
      return value;
    }
  }
  const bool mayLast = question.mayLast && question.seen->isSettled(FileStamp::realTime()) &&
                       isOnLocalFileSystem(question.path.asString().c_str());
  if (!mayLast) return question.read(false).value;

  std::optional<OwnReading> own;
  {
    Held memory;
    if (SharedValue value = memory->recall(question, memory.leftovers())) return value;
    const auto other = memory->readings.find(key);
    if (other == memory->readings.end()) {
      own.emplace(memory, key, *question.seen);
    } else if (const std::shared_ptr<Reading> reading = other->second;
               reading->stamp == *question.seen) {
      if (!waitFor(*reading, memory)) return nullptr;
      if (reading->value != nullptr && reading->stamp == *question.seen &&
          question.suits(*reading->value)) {
        return reading->value;
      }
    }
  }
  return own ? readForAll(question, *own) : question.read(false).value;
}

void FileCache::limit(std::size_t bytes) noexcept {
  limitInBytes = bytes;
  Held memory;
  memory->makeRoom(bytes, memory.leftovers());
}

std::size_t FileCache::limit() noexcept { return limitInBytes; }

void FileCache::clear() noexcept {
  Held memory;
  memory->makeRoom(0, memory.leftovers());
}

FileCache::Usage FileCache::usage() noexcept {
  const Held memory;
  return {.files = memory->entries.size(), .bytes = memory->bytes};
}

}  // namespace Velantrix::Crypto::PKX509
