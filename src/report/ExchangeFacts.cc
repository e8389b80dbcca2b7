#include "report/ExchangeFacts.h"

#include "foundation/run/Counters.h"
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
    case HTTPKind::kProxy:
      return "the proxy";
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
    case HTTPKind::kEncoding:
      return "content in an encoding that was not asked for";
    case HTTPKind::kClosed:
      return "no answer";
    case HTTPKind::kNoTime:
      return "no time was left for the network";
    case HTTPKind::kCancelled:
      return "somebody asked to stop";
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
    case HTTPKind::kCancelled:
      return UseFacts::Failure::kBudget;
    default:
      return UseFacts::Failure::kNoAnswer;
  }
}

// Of what ends every use of the network, or the one that was refused.
std::string_view resourceOf(HTTPKind kind) noexcept {
  if (kind == HTTPKind::kCancelled) return "cancelled";
  const std::string_view end = VerificationRun::endOfNetwork();
  return end.empty() ? "network time" : end;
}

std::string reasonOf(const LW::HTTP::Failure& failure) {
  std::string text(whatFailed(failure.kind));
  if (failure.kind == HTTPKind::kStatus) text += " " + std::to_string(failure.httpStatus);
  if (failure.detail.empty()) return text;
  if (failure.kind == HTTPKind::kRefusedAddress) return text + " " + failure.detail;
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
  if (facts.failure == UseFacts::Failure::kNoAnswer && !VerificationRun::endOfNetwork().empty()) {
    facts.failure = UseFacts::Failure::kBudget;
  }
  if (facts.failure == UseFacts::Failure::kBudget) facts.resource = resourceOf(failure.kind);
  return facts;
}

void countExchange(const LW::HTTP::Failure& failure, std::uint64_t received) noexcept {
  if (failure.kind == HTTPKind::kRefusedAddress || failure.kind == HTTPKind::kNoTime ||
      failure.kind == HTTPKind::kClientIdentity) {
    return;
  }
  count(Statistics::Counter::kFetches);
  if (failure.kind != HTTPKind::kNone) count(Statistics::Counter::kFetchFailures);
  count(Statistics::Counter::kNetworkBytes, received);
}

void tellFailure(SourceUse& use, const LW::HTTP::Failure& failure) noexcept {
  try {
    const bool refused = failure.kind == HTTPKind::kRefusedAddress ||
                         failure.kind == HTTPKind::kNoTime || failure.kind == HTTPKind::kCancelled;
    UseFacts facts = factsOf(failure);
    if (refused) return use.refused(std::move(facts));
    use.failed(std::move(facts));
  } catch (const std::exception&) {
    use.failed({});
  }
}

}  // namespace Velantrix::Crypto::PKX509
