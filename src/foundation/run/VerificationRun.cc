#include "foundation/run/VerificationRun.h"

#include "foundation/base/Log.h"
#include "foundation/run/ConnectionSubject.h"

#include <openssl/x509.h>

#include <ctime>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {
thread_local VerificationRun* currentRun = nullptr;

void sayThatItIsSpent(NetworkBudget::Resource spent) {
  switch (spent) {
    case NetworkBudget::Resource::kTime:
      log(kPriorityInfo,
          "Verifier: the time for the network is spent, the rest of this verification reaches no "
          "host");
      break;
    case NetworkBudget::Resource::kBytes:
      log(kPriorityInfo,
          "Verifier: too many bytes of CRLs, the rest of this verification fetches no more");
      break;
    case NetworkBudget::Resource::kDeadline:
      log(kPriorityInfo,
          "Verifier: the time of this verification is over, the rest of it is left out");
      break;
  }
}

// What this thread has used of the processor; none where a sandbox forbids the clock.
std::optional<std::chrono::nanoseconds> processorTimeUsed() noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now) != 0) return std::nullopt;
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// Time that goes by, within some milliseconds, and for the price of reading it from memory.
std::chrono::nanoseconds coarseTime() noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) return std::chrono::nanoseconds::max();
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

constexpr std::string_view kLookups = "lookups";
constexpr std::string_view kProcessorTime = "processor time";
constexpr std::string_view kDecodedBytes = "decoded bytes";
constexpr std::string_view kNetworkTime = "network time";
constexpr std::string_view kNetworkBytes = "network bytes";
constexpr std::string_view kTime = "time";
constexpr std::string_view kCancelled = "cancelled";

// None where it is too far away for the clock.
std::optional<NetworkBudget::Clock::time_point> pointAfter(
    const std::optional<NetworkBudget::Clock::duration>& duration) noexcept {
  using Clock = NetworkBudget::Clock;
  const Clock::time_point now = Clock::now();
  if (!duration.has_value() || *duration > Clock::time_point::max() - now) return std::nullopt;
  return now + *duration;
}

// What the outermost run has no more of: the run has fallen short, and the line is written once.
bool refuse(bool& told, const char* line) {
  Shortfall::note();
  if (!std::exchange(told, true)) log(kPriorityInfo, line);
  return false;
}

}  // namespace

VerificationRun::VerificationRun(Shelter /*shelter*/) noexcept
    : target_(nullptr),
      outer_(currentRun),
      level_(outer_ == nullptr ? 0 : outer_->level_),
      totals_(outer_ == nullptr ? &own_ : outer_->totals_),
      refusal_(nullptr) {
  begin({});
  currentRun = this;
}

VerificationRun::VerificationRun(const X509* target, const Limits& limits) noexcept
    : target_(target),
      outer_(currentRun),
      level_(outer_ == nullptr ? 1 : outer_->level_ + 1),
      totals_(outer_ == nullptr ? &own_ : outer_->totals_),
      refusal_(judge()) {
  begin(limits);
  if (outer_ == nullptr) own_.processorStart = processorTimeUsed();
  currentRun = this;
}

VerificationRun::~VerificationRun() { currentRun = outer_; }

VerificationRun* VerificationRun::current() noexcept { return currentRun; }

void VerificationRun::begin(const Limits& limits) noexcept {
  if (outer_ != nullptr) return;
  own_.processorLimit = limits.processorTime;
  if (limits.processorTime.has_value()) own_.start = coarseTime();
  own_.lines.emplace(kMaximumLines);
  own_.shortfall.emplace();
  own_.network.emplace(
      NetworkBudget::Limits{limits.networkTime, kMaximumCRLBytes, pointAfter(limits.wholeTime)},
      sayThatItIsSpent);
  installed_.emplace(*own_.network);
  addresses_.emplace(limits.addresses);
  cancellation_.emplace(limits.stop);
}

const char* VerificationRun::judge() noexcept {
  if (outer_ == nullptr) return nullptr;
  if (++totals_->nested > kMaximumNested) return "too many nested verifications";
  if (level_ > kMaximumLevel) return "verifications are nested too deep";
  if (target_ == nullptr) return nullptr;
  for (const VerificationRun* run = outer_; run != nullptr; run = run->outer_) {
    if (run->target_ != nullptr && X509_cmp(run->target_, target_) == 0) {
      return kDependsOnItself;
    }
  }
  return nullptr;
}

bool VerificationRun::admitLookup() {
  if (currentRun == nullptr) return true;
  if (!admitStep()) return false;
  Totals& totals = *currentRun->totals_;
  ConnectionSubject* const subject = ConnectionSubject::current();
  if (subject != nullptr && !subject->admitsLookup()) {
    totals.refusedLast = kLookups;
    return refuse(totals.strangersLookupsTold,
                  "Verifier: too many CRL look-ups for a certificate that no trust anchor vouches "
                  "for, the rest of them find no more CRLs");
  }
  if (totals.lookups < kMaximumLookups) {
    ++totals.lookups;
    return true;
  }
  Shortfall::note();
  totals.refusedLast = kLookups;
  if (totals.lookups == kMaximumLookups) {
    ++totals.lookups;  // past the limit: the line below is written once
    log(kPriorityDebug,
        "Verifier: too many CRL look-ups, the rest of this verification finds no more CRLs");
  }
  return false;
}

bool VerificationRun::mayLookUp() {
  if (currentRun == nullptr) return true;
  if (currentRun->totals_->lookups >= kMaximumLookups) return admitLookup();
  return admitStep();
}

bool VerificationRun::mayGoOn() {
  if (currentRun == nullptr) return true;
  Totals& totals = *currentRun->totals_;
  if (Cancellation::requested()) {
    totals.refusedLast = kCancelled;
    return refuse(totals.cancelledTold,
                  "Verifier: somebody asks to stop, the rest of this verification is left out");
  }
  if (!totals.network->isOver()) return true;
  totals.refusedLast = kTime;
  return false;
}

bool VerificationRun::admitStep() {
  if (currentRun == nullptr) return true;
  if (!mayGoOn()) return false;
  Totals& totals = *currentRun->totals_;
  if (!totals.processorLimit.has_value()) return true;
  // A thread computes no longer than the time that goes by, and that costs no system call to know.
  const std::chrono::nanoseconds now = coarseTime();
  constexpr auto kUnknown = std::chrono::nanoseconds::max();
  if (now != kUnknown && totals.start != kUnknown && now - totals.start < *totals.processorLimit) {
    return true;
  }
  const std::optional<std::chrono::nanoseconds> used = currentRun->processorTime();
  if (used.has_value() && *used < *totals.processorLimit) return true;
  totals.refusedLast = kProcessorTime;
  return refuse(totals.processorTold,
                "Verifier: the processor time is spent, the rest of this verification is left out");
}

bool VerificationRun::admitDecoding(std::size_t bytes) {
  if (currentRun == nullptr) return true;
  Totals& totals = *currentRun->totals_;
  if (bytes <= kMaximumDecodedBytes - totals.decoded) {
    totals.decoded += bytes;
    return true;
  }
  totals.refusedLast = kDecodedBytes;
  return refuse(totals.decodedTold,
                "Verifier: too many bytes of certificates and CRLs, the rest of this verification "
                "reads no more");
}

std::string_view VerificationRun::refusedLast() noexcept {
  return currentRun == nullptr ? std::string_view() : currentRun->totals_->refusedLast;
}

std::vector<std::string_view> VerificationRun::spent() const {
  using Resource = NetworkBudget::Resource;
  const Totals& totals = *totals_;
  std::vector<std::string_view> names;
  const auto add = [&](bool isSpent, std::string_view name) {
    if (isSpent) names.push_back(name);
  };
  add(totals.lookups > kMaximumLookups || totals.strangersLookupsTold, kLookups);
  add(totals.processorTold, kProcessorTime);
  add(totals.decodedTold, kDecodedBytes);
  add(totals.network->isSpent(Resource::kTime), kNetworkTime);
  add(totals.network->isSpent(Resource::kBytes), kNetworkBytes);
  add(totals.network->isSpent(Resource::kDeadline), kTime);
  add(Cancellation::noticed(), kCancelled);
  return names;
}

std::optional<std::chrono::nanoseconds> VerificationRun::processorTime() const noexcept {
  const std::optional<std::chrono::nanoseconds> used = processorTimeUsed();
  if (!used.has_value() || !totals_->processorStart.has_value()) return std::nullopt;
  return *used - *totals_->processorStart;
}

bool VerificationRun::wasStopped() const noexcept {
  return Cancellation::noticed() || totals_->network->isSpent(NetworkBudget::Resource::kDeadline);
}

std::string_view VerificationRun::endOfNetwork() noexcept {
  if (currentRun == nullptr) return {};
  const NetworkBudget& network = *currentRun->totals_->network;
  if (Cancellation::noticed()) return kCancelled;
  if (network.isSpent(NetworkBudget::Resource::kDeadline)) return kTime;
  return network.isSpent(NetworkBudget::Resource::kTime) ? kNetworkTime : std::string_view();
}

X509* VerificationRun::known(const unsigned char* der, std::size_t length) {
  const std::string_view wanted(reinterpret_cast<const char*>(der), length);
  for (VerificationRun* run = currentRun; run != nullptr; run = run->outer_) {
    // From the root down: directories hold the upper end of a chain, and encoding costs something.
    for (auto known = run->known_.rbegin(); known != run->known_.rend(); ++known) {
      if (known->der.empty()) {
        const int size = i2d_X509(known->certificate, nullptr);
        if (size <= 0) continue;
        known->der.resize(static_cast<std::size_t>(size));
        auto* position = reinterpret_cast<unsigned char*>(known->der.data());
        i2d_X509(known->certificate, &position);
      }
      if (known->der == wanted) return known->certificate;
    }
  }
  return nullptr;
}

void VerificationRun::park(std::exception_ptr exception) noexcept {
  if (parked_ == nullptr) parked_ = std::move(exception);
}

void VerificationRun::rethrowParked() {
  if (parked_ != nullptr) std::rethrow_exception(std::exchange(parked_, nullptr));
}

}  // namespace Velantrix::Crypto::PKX509
