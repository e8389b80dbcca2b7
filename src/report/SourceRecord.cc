#include "report/SourceRecord.h"

#include "foundation/base/FileDescriptor.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/Counters.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/Exception.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <exception>
#include <string>
#include <unistd.h>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Source = SourceRecord::Source;
using Use = SourceRecord::Use;

bool isSameQuestion(const Use& a, const Use& b) noexcept {
  return a.about == b.about && a.kind == b.kind && a.wanted == b.wanted && a.origin == b.origin;
}

// Something or nothing was found, and that is all.
bool isPlain(const Use& use) noexcept {
  const bool answered =
      use.result == Source::Result::kFound || use.result == Source::Result::kNothing;
  return answered && use.facts.reason.empty() && use.facts.errorNumber == 0;
}

bool isSameAnswer(const Use& a, const Use& b) noexcept {
  if (isPlain(a) && isPlain(b)) return true;
  return a.result == b.result && a.facts.failure == b.facts.failure &&
         a.facts.errorNumber == b.facts.errorNumber && a.facts.file == b.facts.file &&
         a.facts.reason == b.facts.reason;
}

constexpr std::string_view kNetworkTime = "network time";

// What went wrong, without who says so where that is known.
std::string_view textOf(const std::exception& failure) noexcept {
  const auto* const ours = dynamic_cast<const Exception*>(&failure);
  if (ours != nullptr && !ours->stringParameter().empty()) return ours->stringParameter();
  return failure.what();
}

// Who fails names what in front of the reason, and so may who has asked him.
std::string withoutName(std::string_view name, std::string_view text) {
  while (!name.empty() && text.starts_with(name) && text.substr(name.size()).starts_with(": ")) {
    text.remove_prefix(name.size() + 2);
  }
  return std::string(text);
}

constexpr std::size_t kUsualUses = 5;  // of one verification; for more there is more room later

// What a network takes is worth a look at the exact clock. What a directory takes is mostly less than the
// look, so that the ticks of the coarse one do.
std::chrono::nanoseconds clockOf(Source::Kind kind) noexcept {
  const bool isNetwork = kind == Source::Kind::kCRLServer || kind == Source::Kind::kOCSPResponder ||
                         kind == Source::Kind::kLDAP;
  timespec now{};
  if (clock_gettime(isNetwork ? CLOCK_MONOTONIC : CLOCK_MONOTONIC_COARSE, &now) != 0) return {};
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

struct SourceCounters {
  Statistics::Counter lookups;
  Statistics::Counter hits;
};

SourceCounters countersOf(Source::Kind kind) noexcept {
  using Counter = Statistics::Counter;
  switch (kind) {
    case Source::Kind::kDirectory:
      return {Counter::kLookupsDirectory, Counter::kHitsDirectory};
    case Source::Kind::kLookupMethod:
      return {Counter::kLookupsMethod, Counter::kHitsMethod};
    case Source::Kind::kLDAP:
      return {Counter::kLookupsLDAP, Counter::kHitsLDAP};
    case Source::Kind::kCache:
      return {Counter::kLookupsCache, Counter::kHitsCache};
    case Source::Kind::kCRLServer:
      return {Counter::kLookupsCRLServer, Counter::kHitsCRLServer};
    case Source::Kind::kOCSPResponder:
      break;
  }
  return {Counter::kLookupsOCSPResponder, Counter::kHitsOCSPResponder};
}

void countLookup(const Use& use) noexcept {
  if (use.result == Source::Result::kRefused) return;
  const SourceCounters counters = countersOf(use.kind);
  count(counters.lookups);
  if (use.found > 0) count(counters.hits);
}

}  // namespace

SourceRecord* SourceRecord::current() noexcept {
  try {
    return VerificationRun::kept<SourceRecord>();
  } catch (const std::exception&) {
    return nullptr;  // it explains, and decides nothing
  }
}

void SourceRecord::add(Use&& use) {
  if (uses_.empty()) uses_.reserve(kUsualUses);
  if (uses_.size() < kMaximumUses) {
    uses_.push_back(std::move(use));
  } else {
    ++leftOut_;
  }
}

std::size_t SourceRecord::reached() noexcept {
  const SourceRecord* const record = current();
  return record == nullptr ? 0 : record->uses_.size();
}

bool SourceRecord::knows(const Use& use) const noexcept {
  return std::any_of(uses_.begin(), uses_.end(), [&](const Use& other) {
    return isSameQuestion(other, use) && isSameAnswer(other, use);
  });
}

std::vector<SourceRecord::Use> SourceRecord::summedUp() const {
  std::vector<Use> all;
  all.reserve(uses_.size());
  for (const Use& use : uses_) {
    const auto same = std::find_if(all.begin(), all.end(), [&](const Use& other) {
      return other.fromMemory == use.fromMemory && isSameQuestion(other, use) &&
             isSameAnswer(other, use);
    });
    if (same == all.end()) {
      all.push_back(use);
      continue;
    }
    if (use.result == Source::Result::kFound) same->result = use.result;
    same->found += use.found;
    same->taken += use.taken;
    same->facts.bytes += use.facts.bytes;
    if (!same->facts.stored) same->facts.stored = use.facts.stored;
  }
  return all;
}

void SourceRecord::again(const Stretch& asked) noexcept {
  SourceRecord* const record = current();
  if (record == nullptr) return;
  SourceUse* const asking = SourceUse::innermost();
  try {
    for (std::size_t i = asked.begin; i < asked.end && i < record->uses_.size(); ++i) {
      if (asking != nullptr) asking->told_ = asking->counted_ = true;
      if (record->uses_[i].about == record->about_) continue;
      Use use = record->uses_[i];
      use.about = record->about_;
      if (record->knows(use)) continue;
      use.fromMemory = true;
      use.taken = {};
      record->add(std::move(use));
    }
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

SourceRecord::About::About(const X509* certificate) noexcept : record_(current()) {
  if (record_ != nullptr) outer_ = std::exchange(record_->about_, certificate);
}

SourceRecord::About::~About() {
  if (record_ != nullptr) record_->about_ = outer_;
}

SourceUse::SourceUse(Source::Kind kind, Source::Wanted wanted, std::string_view origin) noexcept
    : record_(SourceRecord::current()) {
  if (record_ == nullptr) return;
  try {
    use_.kind = kind;
    use_.wanted = wanted;
    use_.about = record_->about_;
    use_.origin = origin;
    run_ = VerificationRun::current();
    start_ = clockOf(kind);
    outer_ = std::exchange(record_->innermost_, this);
  } catch (const std::exception&) {
    record_ = nullptr;
  }
}

SourceUse::~SourceUse() {
  if (record_ == nullptr) return;
  record_->innermost_ = outer_;
  if (!counted_) countLookup(use_);
  // What a verification that a source starts has asked is none of the source's.
  const bool isWithin =
      outer_ != nullptr && outer_->run_ == run_ && outer_->use_.wanted == use_.wanted;
  if (isWithin) outer_->counted_ = true;
  if (isTold()) return;
  try {
    // What was not asked took no time, though the clock may have ticked.
    if (use_.result != Source::Result::kRefused) use_.taken = clockOf(use_.kind) - start_;
    if (isWithin) {
      outer_->told_ = true;
      if (use_.result == Source::Result::kFailed) outer_->failureTold_ = true;
    }
    record_->add(std::move(use_));
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

// Whether there is nothing left to say.
bool SourceUse::isTold() const noexcept {
  if (!told_) return false;
  switch (use_.result) {
    case Source::Result::kNothing:
      return true;
    case Source::Result::kFailed:
      return failureTold_;
    case Source::Result::kFound:
      // A directory or a server says more than the method that asks it.
      return use_.kind == Source::Kind::kLookupMethod;
    case Source::Result::kRefused:
    case Source::Result::kCut:
      break;
  }
  return false;
}

void SourceUse::found(std::size_t objects) noexcept {
  use_.found = objects;
  if (objects > 0) use_.result = Source::Result::kFound;
}

void SourceUse::cut(std::string_view reason) noexcept {
  use_.result = use_.found > 0 ? Source::Result::kCut : Source::Result::kFailed;
  if (record_ == nullptr) return;
  try {
    use_.facts.reason = reason;
  } catch (const std::exception&) {
    // It goes without.
  }
}

void SourceUse::failed(UseFacts facts) noexcept {
  facts.bytes = std::max(facts.bytes, use_.facts.bytes);
  use_.facts = std::move(facts);
  use_.result = Source::Result::kFailed;
}

void SourceUse::refused(UseFacts facts) noexcept {
  failed(std::move(facts));
  use_.result = Source::Result::kRefused;
}

void SourceUse::refusedByBudget() noexcept {
  refused({.failure = UseFacts::Failure::kBudget, .resource = VerificationRun::refusedLast()});
}

void SourceUse::spent(std::string_view resource) noexcept {
  use_.facts.failure = UseFacts::Failure::kBudget;
  use_.facts.resource = resource;
}

void SourceUse::nothing(UseFacts facts) noexcept {
  failed(std::move(facts));
  use_.result = Source::Result::kNothing;
}

void SourceUse::failedBy(const std::exception_ptr& thrown) noexcept {
  const bool known = use_.result == Source::Result::kFailed && !use_.facts.reason.empty();
  if (record_ == nullptr || known) return;
  failed({});
  try {
    try {
      std::rethrow_exception(thrown);
    } catch (const std::exception& failure) {
      use_.facts.reason = withoutName(use_.origin.text(), textOf(failure));
      const SystemFailure& last = lastSystemFailure;
      if (last.isSaidBy(textOf(failure))) {
        use_.facts.errorNumber = last.error;
        use_.facts.reason = withoutName(last.path, textOf(failure));
        const bool isFile =
            use_.kind == Source::Kind::kDirectory || use_.kind == Source::Kind::kCache;
        if (isFile && last.path != use_.origin.text()) use_.facts.file = last.path;
      }
    }
  } catch (...) {
    // It goes without.
  }
  if (const std::string_view end = VerificationRun::endOfNetwork(); !end.empty()) spent(end);
}

void SourceUse::bytes(std::uint64_t received) noexcept { use_.facts.bytes = received; }

void SourceUse::stored(const Time& when) noexcept { use_.facts.stored = when; }

void SourceUse::drop() noexcept {
  use_.result = Source::Result::kNothing;
  told_ = counted_ = true;
}

SourceUse* SourceUse::innermost() noexcept {
  const SourceRecord* const record = SourceRecord::current();
  if (record == nullptr || record->innermost_ == nullptr) return nullptr;
  return record->innermost_->run_ == VerificationRun::current() ? record->innermost_ : nullptr;
}

void SourceUse::addTold(Source::Result result, UseFacts&& facts) {
  told_ = true;
  SourceRecord::Use use{.kind = use_.kind,
                        .wanted = use_.wanted,
                        .origin = use_.origin,
                        .result = result,
                        .about = use_.about};
  use.facts = std::move(facts);
  record_->add(std::move(use));
}

void SourceUse::unreadable(const std::string& file, const std::exception& failure) noexcept {
  try {
    SourceUse* const use = innermost();
    if (use == nullptr) return;
    UseFacts facts = unreadableFacts(file, failure);
    if (facts.errorNumber == ENOENT) return;
    facts.file = file;
    use->addTold(Source::Result::kFailed, std::move(facts));
    use->failureTold_ = true;
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

void SourceUse::malformed(const std::exception& failure) noexcept {
  try {
    SourceUse* const use = innermost();
    if (use == nullptr) return;
    use->addTold(Source::Result::kFailed, {.failure = UseFacts::Failure::kMalformed,
                                           .reason = std::string(textOf(failure))});
    use->failureTold_ = true;
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

void SourceUse::leftOut() noexcept {
  try {
    SourceUse* const use = innermost();
    if (use == nullptr || std::exchange(use->leftOut_, true)) return;
    use->addTold(Source::Result::kRefused, {.failure = UseFacts::Failure::kBudget,
                                            .resource = VerificationRun::refusedLast()});
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

std::optional<ObjectOrigins::Where> SourceUse::originOf(const std::string& file) {
  using Kind = VerificationReport::Origin::Kind;
  const SourceUse* const use = innermost();
  if (use == nullptr) return std::nullopt;
  const SourceRecord::Use& asked = use->use_;
  if (asked.kind == Source::Kind::kCache)
    return ObjectOrigins::Where{Kind::kCache, asked.origin, file};
  const bool crls = asked.wanted == Source::Wanted::kCRLs;
  return ObjectOrigins::Where{crls ? Kind::kMachineCRLs : Kind::kTrustDirectory, asked.origin,
                              file};
}

UseFacts notAdmitted() {
  if (isForStranger()) {
    return {.failure = UseFacts::Failure::kNotVouched,
            .reason = "no trust anchor vouches for the certificate that names the host"};
  }
  const std::string_view end = VerificationRun::endOfNetwork();
  return {.failure = UseFacts::Failure::kBudget, .resource = end.empty() ? kNetworkTime : end};
}

UseFacts unreadableFacts(const std::string& path, const std::exception& failure) {
  UseFacts facts{.failure = UseFacts::Failure::kUnreadable,
                 .reason = withoutName(path, textOf(failure))};
  // An exception has only the text of it.
  if (::access(path.c_str(), R_OK) != 0) facts.errorNumber = errno;
  return facts;
}

}  // namespace Velantrix::Crypto::PKX509
