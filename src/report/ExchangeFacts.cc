#include "report/ExchangeFacts.h"

#include "foundation/run/VerificationRun.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using HTTPKind = LW::HTTP::Failure::Kind;

std::string_view whatFailed(HTTPKind kind) noexcept {
  switch (kind) {
    case HTTPKind::kClientIdentity:
      return "client certificate or key";
    case HTTPKind::kResolve:
      return "the host has no address";
    case HTTPKind::kRefusedAddress:
      return "the address policy refuses";
    case HTTPKind::kConnect:
      return "could not connect";
    case HTTPKind::kTls:
      return "TLS";
    case HTTPKind::kCutShort:
      return "the answer ends in the middle";
    case HTTPKind::kTooLarge:
      return "the answer is too large";
    case HTTPKind::kStatus:
      return "HTTP status";
    case HTTPKind::kMalformed:
      return "the answer is no HTTP";
    case HTTPKind::kClosed:
      return "no answer";
    case HTTPKind::kNoTime:
      return "no time was left for the network";
    case HTTPKind::kTimedOut:  // the detail says it
    case HTTPKind::kNone:
      break;
  }
  return "";
}

UseFacts::Failure kindOf(HTTPKind kind) noexcept {
  switch (kind) {
    case HTTPKind::kClientIdentity:
      return UseFacts::Failure::kClientIdentity;
    case HTTPKind::kRefusedAddress:
      return UseFacts::Failure::kAddressRefused;
    case HTTPKind::kNoTime:
      return UseFacts::Failure::kBudget;
    default:
      return UseFacts::Failure::kNoAnswer;
  }
}

bool timeIsSpent() noexcept {
  VerificationRun* const run = VerificationRun::current();
  return run != nullptr && run->network().isSpent(NetworkBudget::Resource::kTime);
}

std::string reasonOf(const LW::HTTP::Failure& failure) {
  std::string text(whatFailed(failure.kind));
  if (failure.kind == HTTPKind::kStatus) text += " " + std::to_string(failure.httpStatus);
  if (failure.detail.empty()) return text;
  return text.empty() ? failure.detail : text + ": " + failure.detail;
}

}  // namespace

UseFacts notSpoken(const Uri& uri) {
  return {.failure = UseFacts::Failure::kScheme, .reason = "not spoken: " + uri.scheme()};
}

UseFacts factsOf(const LW::HTTP::Failure& failure) {
  UseFacts facts{.failure = kindOf(failure.kind),
                 .reason = reasonOf(failure),
                 .file = failure.file,
                 .httpStatus = failure.httpStatus};
  // The resolver's statuses are its own.
  if (failure.kind != HTTPKind::kResolve) facts.errorNumber = failure.error;
  if (facts.failure == UseFacts::Failure::kNoAnswer && timeIsSpent()) {
    facts.failure = UseFacts::Failure::kBudget;
  }
  if (facts.failure == UseFacts::Failure::kBudget) facts.resource = "network time";
  return facts;
}

void tellFailure(SourceUse& use, const LW::HTTP::Failure& failure) noexcept {
  try {
    const bool refused =
        failure.kind == HTTPKind::kRefusedAddress || failure.kind == HTTPKind::kNoTime;
    UseFacts facts = factsOf(failure);
    if (refused) return use.refused(std::move(facts));
    use.failed(std::move(facts));
  } catch (const std::exception&) {
    use.failed({});
  }
}

}  // namespace Velantrix::Crypto::PKX509
