#include "retrieval/FetchDesk.h"

#include "foundation/base/FileDescriptor.h"
#include "foundation/base/Log.h"
#include "foundation/base/URIText.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/HostResolver.h"
#include "report/ExchangeFacts.h"
#include "retrieval/DeskFiles.h"
#include "retrieval/DeskMemory.h"
#include "retrieval/DeskProcess.h"
#include "retrieval/DeskRecord.h"

#include <algorithm>
#include <ares.h>
#include <array>
#include <cerrno>
#include <thread>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace HTTP = LW::HTTP;

namespace {

using Kind = HTTP::Failure::Kind;

// This machine lacks something, or the exchange was given up here.
bool isOurs(int error) noexcept {
  constexpr std::array kOurs{EMFILE, ENFILE, ENOMEM, ENOBUFS, EADDRINUSE, EADDRNOTAVAIL, ECANCELED};
  return std::find(kOurs.begin(), kOurs.end(), error) != kOurs.end();
}

// The same of a look-up of addresses. That no name server can be reached says nothing of the host.
bool isOursToResolve(int status) noexcept {
  constexpr std::array kOurs{ARES_ENOMEM,       ARES_EFILE,           ARES_ECONNREFUSED,
                             ARES_EDESTRUCTION, ARES_ENOTINITIALIZED, ARES_ECANCELLED};
  return std::find(kOurs.begin(), kOurs.end(), status) != kOurs.end();
}

bool isTimeOut(const HTTP::Failure& failure) noexcept {
  return failure.kind == Kind::kTimedOut || failure.error == ETIMEDOUT;
}

// How long a host has that lets the exchange end in such a failure by its silence.
std::chrono::milliseconds boundOf(const HTTP::Failure& failure, const HTTP::WebTerms& terms) {
  if (failure.kind == Kind::kResolve) {
    if (failure.error != ARES_ETIMEOUT) return {};
    return std::min<std::chrono::milliseconds>(terms.resolveTime, kResolveTime);
  }
  if (!isTimeOut(failure)) return {};
  return failure.kind == Kind::kTimedOut ? terms.queryTime : terms.connectTime;
}

// Clocks are read one after the other.
constexpr std::chrono::milliseconds kClockSlack{50};

// One line for each process: a cache that cannot be written stays so for each of its mails.
void warn(const DeskFiles& files, int error) {
  if (!DeskProcess::instance().isToWarn()) return;
  logAlways(kPriorityNotice,
            "Retrieval: what is fetched and what fails is known to this process only: " +
                systemErrorText(files.directory(), error));
}

// All that is known of one place: files of the cache, and the memory of this process where those cannot
// be written.
class Desk {
 public:
  Desk(const std::string& cache, const std::string& place)
      : files_(cache), digest_(DeskFiles::digestOf(place)), key_(cache + '\0' + digest_) {}

  const std::string& key() const { return key_; }

  std::optional<FetchDesk::Mark> mark() const {
    const Time now = Time::now();
    std::optional<FetchDesk::Mark> shared;
    if (const auto text = files_.read(name(DeskFiles::kMark), kMaximumMark)) {
      shared = parseMark(*text, now);
    }
    std::optional<FetchDesk::Mark> own =
        process_.withMemory([&](const DeskMemory& memory) { return memory.mark(key_); });
    if (!own || own->at > now || (shared && own->at < shared->at)) return shared;
    return own;
  }

  void keep(const FetchDesk::Mark& mark) {
    const bool shared = write(DeskFiles::kMark, markText(mark), {});
    process_.withMemory([&](DeskMemory& memory) {
      return shared ? memory.forgetMark(key_) : memory.keep(key_, mark);
    });
  }

  void forgetMark() {
    files_.remove(name(DeskFiles::kMark));
    process_.withMemory([&](DeskMemory& memory) { memory.forgetMark(key_); });
  }

  std::optional<FetchDesk::Delivery> delivery() const {
    const Time now = Time::now();
    constexpr std::size_t kMost = kMaximumDeliveryHead + kMaximumDelivery;
    if (auto content = files_.read(name(DeskFiles::kDelivery), kMost)) {
      if (auto shared = parseDelivery(std::move(*content), now)) return shared;
    }
    const DeskMemory::SharedDelivery own =
        process_.withMemory([&](const DeskMemory& memory) { return memory.delivery(key_); });
    if (own == nullptr || !isCurrent(*own, now)) return std::nullopt;
    return *own;
  }

  void keep(const FetchDesk::Delivery& delivery) {
    const bool shared = write(DeskFiles::kDelivery, deliveryHead(delivery), delivery.octets);
    const auto own = shared ? nullptr : std::make_shared<const FetchDesk::Delivery>(delivery);
    process_.withMemory([&](DeskMemory& memory) {
      return shared ? memory.forgetDelivery(key_) : memory.keep(key_, own);
    });
  }

  void forgetDelivery() {
    files_.remove(name(DeskFiles::kDelivery));
    process_.withMemory([&](DeskMemory& memory) { memory.forgetDelivery(key_); });
  }

  // Null without `givenUp` where this process is all that can be kept out.
  std::unique_ptr<DeskLock> lock(DeskProcess::Clock::time_point deadline, bool& givenUp) {
    if (process_.isToTidy(0)) files_.makeRoom(0);
    std::unique_ptr<DeskLock> lock;
    for (std::chrono::milliseconds pause{1};; pause = std::min(2 * pause, FetchDesk::kPoll)) {
      if (lock == nullptr && !open(lock)) return nullptr;
      const int error = lock->take();
      if (error == 0 && files_.isNamed(*lock, name(DeskFiles::kLock))) return touched(lock);
      if (error != 0 && !wouldBlock(error)) return withoutLocks(error);
      // It was old, and another has its name now.
      if (error == 0) lock.reset();
      givenUp = Cancellation::requested() || DeskProcess::Clock::now() >= deadline;
      if (givenUp) return nullptr;
      std::this_thread::sleep_until(std::min(deadline, DeskProcess::Clock::now() + pause));
    }
  }

 private:
  std::string name(std::string_view suffix) const { return digest_ + std::string(suffix); }

  bool write(std::string_view suffix, const std::string& head, std::string_view rest) {
    const std::size_t size = head.size() + rest.size();
    if (process_.isToTidy(size)) files_.makeRoom(size);
    const int error = files_.write(name(suffix), head, rest);
    if (error != 0) warn(files_, error);
    return error == 0;
  }

  bool open(std::unique_ptr<DeskLock>& lock) {
    int error = 0;
    lock = files_.lock(name(DeskFiles::kLock), error);
    if (lock == nullptr) warn(files_, error);
    return lock != nullptr;
  }

  static std::unique_ptr<DeskLock> touched(std::unique_ptr<DeskLock>& lock) {
    lock->touch();
    return std::move(lock);
  }

  // The file system has none.
  std::unique_ptr<DeskLock> withoutLocks(int error) {
    warn(files_, error);
    return nullptr;
  }

  DeskProcess& process_ = DeskProcess::instance();
  DeskFiles files_;
  std::string digest_;
  std::string key_;
};

}  // namespace

std::string FetchDesk::placeOf(const Uri& uri) { return uri.canonicalized(); }

std::string FetchDesk::hostPlaceOf(const Uri& uri) {
  const Uri normal(uri.canonicalized());
  return std::string(kHostPlace) + normal.scheme() + "//" + authorityOf(normal);
}

std::string FetchDesk::textPlaceOf(const Uri& uri) {
  return std::string(kTextPlace) + uri.asString();
}

std::string FetchDesk::responderPlaceOf(const Uri& uri) {
  return std::string(kResponderPlace) + placeOf(uri);
}

bool FetchDesk::isOfHost(const HTTP::Failure& failure) {
  if (failure.kind == Kind::kNone) return false;
  if (failure.kind == Kind::kResolve ? isOursToResolve(failure.error) : isOurs(failure.error)) {
    return false;
  }
  // What the thread may spend, the address policy and the client's own key are told apart there.
  return factsOf(failure).failure == UseFacts::Failure::kNoAnswer;
}

bool FetchDesk::isOfHost(const HTTP::WebAnswer& answer, const HTTP::WebTerms& terms) {
  const HTTP::Failure& failure = answer.failure;
  if (!isOfHost(failure)) return false;
  const bool ofProxy = failure.kind == Kind::kResolve || failure.kind == Kind::kConnect;
  if (!terms.proxy.isNull() && ofProxy) return false;
  if (failure.kind == Kind::kTooLarge && answer.maxContent < terms.maxContent) return false;
  return answer.taken + kClockSlack >= boundOf(failure, terms);
}

bool FetchDesk::isOfAllHost(const HTTP::Failure& failure) noexcept {
  switch (failure.kind) {
    case Kind::kResolve:
    case Kind::kConnect:
    case Kind::kTls:
      return true;
    default:
      return false;
  }
}

// What keeps the threads of this process out, and what keeps others out. It ends in the other order.
struct FetchDesk::Turn::Part {
  Part(const std::string& key, DeskProcess::Clock::time_point deadline) : place(key, deadline) {}

  EnteredPlace place;
  std::unique_ptr<DeskLock> lock = {};
};

FetchDesk::Turn::Turn() noexcept = default;
FetchDesk::Turn::Turn(Turn&& other) noexcept : part_(std::move(other.part_)) {}
FetchDesk::Turn::~Turn() = default;

bool FetchDesk::Turn::held() const noexcept { return part_ != nullptr && part_->place.entered(); }

FetchDesk::FetchDesk(std::string directory) : directory_(std::move(directory)) {
  systemPath(directory_);
}

std::optional<FetchDesk::Mark> FetchDesk::failureOf(const std::string& place) const {
  std::optional<Mark> mark = lastFailureOf(place);
  if (mark && mark->until <= Time::now()) mark.reset();
  return mark;
}

std::optional<FetchDesk::Mark> FetchDesk::lastFailureOf(const std::string& place) const {
  return Desk(directory_, place).mark();
}

void FetchDesk::failed(const std::string& place, const HTTP::Failure& failure) {
  if (!isOfHost(failure)) return;
  Desk desk(directory_, place);
  desk.keep(named(markAfter(desk.mark(), failure, Time::now()), place));
}

void FetchDesk::visitFailures(const MarkVisitor& visitor) const {
  const DeskFiles files(directory_);
  const Time now = Time::now();
  for (const std::string& digest : files.digests(DeskFiles::kMark)) {
    const auto text = files.read(digest + std::string(DeskFiles::kMark), kMaximumMark);
    const std::optional<Mark> mark = text ? parseMark(*text, now) : std::nullopt;
    if (mark && !mark->place.empty()) visitor(digest, *mark);
  }
}

void FetchDesk::succeeded(const std::string& place) { Desk(directory_, place).forgetMark(); }

FetchDesk::Turn FetchDesk::turn(const std::string& place,
                                std::chrono::steady_clock::time_point deadline) {
  Turn turn;
  if (Cancellation::requested()) return turn;
  Desk desk(directory_, place);
  auto part = std::make_unique<Turn::Part>(desk.key(), deadline);
  if (!part->place.entered()) return turn;
  bool givenUp = false;
  part->lock = desk.lock(deadline, givenUp);
  if (!givenUp) turn.part_ = std::move(part);
  return turn;
}

void FetchDesk::deliver(const std::string& place, const Delivery& delivery) {
  if (delivery.octets.size() > kMaximumDelivery) return withdraw(place);
  Desk(directory_, place).keep(delivery);
}

std::optional<FetchDesk::Delivery> FetchDesk::delivered(const std::string& place) const {
  return Desk(directory_, place).delivery();
}

void FetchDesk::withdraw(const std::string& place) { Desk(directory_, place).forgetDelivery(); }

}  // namespace Velantrix::Crypto::PKX509
