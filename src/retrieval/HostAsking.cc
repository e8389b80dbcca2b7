#include "retrieval/HostAsking.h"

#include "foundation/run/Counters.h"
#include "report/ExchangeFacts.h"

#include <pkx509/FixedPaths.h>

#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace HTTP = LW::HTTP;

namespace {
using Counter = Statistics::Counter;
}  // namespace

HostAsking::HostAsking(const Uri& uri, std::string place, const RetrievalSettings& settings,
                       FetchDesk& desk, SourceUse& use)
    : place_(std::move(place)),
      host_(FetchDesk::hostPlaceOf(uri)),
      settings_(settings),
      desk_(desk),
      use_(use) {}

std::optional<FetchDesk::Mark> HostAsking::failedBefore() {
  std::optional<FetchDesk::Mark> mark = desk_.failureOf(place_);
  if (!mark) mark = desk_.failureOf(host_);
  if (!mark) return std::nullopt;
  count(Counter::kFetchesSpared);
  mark->reason += " (a moment ago, and not asked again yet)";
  use_.failed(
      {.failure = mark->malformed ? UseFacts::Failure::kMalformed : UseFacts::Failure::kNoAnswer,
       .reason = mark->reason,
       .httpStatus = mark->httpStatus,
       .errorNumber = mark->errorNumber});
  return mark;
}

HTTP::WebTerms HostAsking::terms(std::chrono::milliseconds queryTime,
                                 std::size_t maxContent) const {
  return {.identity = HTTP::ClientIdentity{kClientCertificateFile, kClientKeyFile},
          .proxy = settings_.proxy,
          .resolveTime = settings_.resolveTime,
          .connectTime = settings_.connectTime,
          .queryTime = queryTime,
          .maxContent = maxContent};
}

HTTP::WebAnswer HostAsking::ask(const HTTP::WebRequest& request,
                                std::chrono::milliseconds queryTime, std::size_t maxContent) {
  count(Counter::kFetches);
  queryTime_ = queryTime;
  HTTP::WebAnswer web = HTTP::ask(request, terms(queryTime, maxContent));
  count(Counter::kNetworkBytes, web.received);
  use_.bytes(web.received);
  return web;
}

void HostAsking::succeeded() {
  desk_.succeeded(place_);
  desk_.succeeded(host_);
}

void HostAsking::failed(const HTTP::WebAnswer& web, std::size_t maxContent) {
  count(Counter::kFetchFailures);
  tellFailure(use_, web.failure);
  if (!FetchDesk::isOfHost(web, terms(queryTime_, maxContent))) return;
  // Where a redirect has led is not the host that is asked next time.
  const bool all = web.redirects == 0 && FetchDesk::isOfAllHost(web.failure);
  desk_.failed(all ? host_ : place_, web.failure);
}

void HostAsking::failed(const HTTP::Failure& failure) {
  count(Counter::kFetchFailures);
  desk_.failed(place_, failure);
}

}  // namespace Velantrix::Crypto::PKX509
