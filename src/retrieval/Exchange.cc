#include "retrieval/Exchange.h"

#include "foundation/base/DotSegments.h"
#include "foundation/base/Log.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/Counters.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "report/ExchangeFacts.h"
#include "report/ObjectOrigins.h"
#include "report/SourceRecord.h"
#include "retrieval/HostAsking.h"

#include <velantrix/Exception.h>

#include <exception>
#include <new>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace HTTP = LW::HTTP;

namespace {

using Counter = Statistics::Counter;
using Result = FetchedCRL::Result;
using Source = SourceRecord::Source;

// What has dot segments is sent as it stands, and what a server makes of them is its own affair: the
// answer is nobody else's.
std::string placeOf(const Uri& uri) {
  return hasDotSegments(uri.path()) ? FetchDesk::textPlaceOf(uri) : FetchDesk::placeOf(uri);
}

constexpr char kAccept[] = "application/pkix-crl, */*;q=0.5";  // RFC 2585, 4.2

class Exchange {
 public:
  Exchange(const Uri& uri, const HTTP::Validators& validators, const RetrievalSettings& settings,
           FetchDesk& desk)
      : uri_(uri),
        validators_(validators),
        settings_(settings),
        desk_(desk),
        use_(Source::Kind::kCRLServer, Source::Wanted::kCRLs, FetchRecord::placeOf(uri)),
        host_(uri, placeOf(uri), settings, desk, use_) {}

  FetchedCRL run() {
    if (!HTTP::isHandled(uri_)) {
      log(kPriorityDebug, "Retrieval: scheme not spoken: " + FetchRecord::placeOf(uri_));
      return refuse(notSpoken(uri_), "its scheme is not spoken");
    }
    if (!connectionAdmitted()) {
      return refuse(notAdmitted(), "no connection is made for it, and a log line says why");
    }
    limit_ = NetworkBudget::admittedBytes(kMaximumCRLSize);
    if (limit_ == 0) {
      return refuse({.failure = UseFacts::Failure::kBudget, .resource = kNetworkBytes},
                    "the verification has fetched too much already");
    }
    if (isSpared() || isDelivered()) return std::move(answer_);
    const FetchDesk::Turn turn = waitForTurn();
    // Who was first has got it meanwhile, or has failed.
    if (isSpared() || isDelivered()) return std::move(answer_);
    if (!turn.held()) {
      const std::string_view end = VerificationRun::endOfNetwork();
      return refuse(
          {.failure = UseFacts::Failure::kBudget, .resource = end.empty() ? kNetworkTime : end},
          "somebody else fetches it, and does not come to an end in time");
    }
    ask();
    return std::move(answer_);
  }

 private:
  static constexpr std::string_view kNetworkBytes = "network bytes";
  static constexpr std::string_view kNetworkTime = "network time";

  FetchedCRL refuse(UseFacts facts, const std::string& reason) {
    use_.refused(std::move(facts));
    return end(Result::kRefused, reason);
  }

  FetchedCRL end(Result result, const std::string& reason) {
    FetchRecord::notFetched(uri_, reason);
    answer_.result = result;
    answer_.reason = reason;
    return std::move(answer_);
  }

  // Waiting counts as time on the network.
  FetchDesk::Turn waitForTurn() {
    const NetworkTimer timer(settings_.resolveTime + settings_.connectTime + settings_.crlTime);
    return desk_.turn(host_.place(), timer.deadline());
  }

  bool isSpared() {
    answer_.mark = host_.failedBefore();
    if (!answer_.mark) return false;
    answer_ = end(Result::kSpared, answer_.mark->reason);
    return true;
  }

  bool isDelivered() {
    std::optional<FetchDesk::Delivery> delivery = desk_.delivered(host_.place());
    if (!delivery) return false;
    answer_.notes = {.validators = delivery->validators, .fetched = delivery->fetched};
    if (delivery->octets.empty()) {
      // It has confirmed what somebody has, and it is ours only where the validators are the same.
      if (validators_.empty() || !(validators_ == delivery->validators)) return false;
      count(Counter::kFetchesShared);
      answer_.result = Result::kNotModified;
      return true;
    }
    count(Counter::kFetchesShared);
    take(reinterpret_cast<const unsigned char*>(delivery->octets.data()), delivery->octets.size());
    return true;
  }

  void ask() {
    const HTTP::WebAnswer web = host_.ask(
        {.uri = uri_, .accept = kAccept, .validators = validators_}, settings_.crlTime, limit_);
    answer_.received = web.received;
    NetworkBudget::countBytes(web.received);
    answer_.notes = {.validators = web.validators, .fetched = Time::now()};
    if (web.notModified) return notModified();
    if (!web.isComplete()) return failed(web);
    host_.succeeded();
    take(web.content->data(), web.content->length());
    if (answer_.failure.kind == HTTP::Failure::Kind::kMalformed) {
      return host_.failed(answer_.failure);
    }
    desk_.deliver(host_.place(),
                  {.octets = std::string(reinterpret_cast<const char*>(web.content->data()),
                                         web.content->length()),
                   .validators = answer_.notes.validators,
                   .fetched = *answer_.notes.fetched});
  }

  // RFC 9110, 15.4.5: a server need not repeat the validators.
  void notModified() {
    count(Counter::kNotModified);
    host_.succeeded();
    if (answer_.notes.validators.empty()) answer_.notes.validators = validators_;
    desk_.deliver(host_.place(),
                  {.validators = answer_.notes.validators, .fetched = *answer_.notes.fetched});
    use_.found(1);
    answer_.result = Result::kNotModified;
  }

  void failed(const HTTP::WebAnswer& web) {
    answer_.failure = web.failure;
    // Cut by what is left for the whole verification, and not by what a CRL may have.
    const bool cut = web.failure.kind == HTTP::Failure::Kind::kTooLarge && limit_ < kMaximumCRLSize;
    host_.failed(web, kMaximumCRLSize);
    if (cut) {
      Shortfall::note();
      use_.spent(kNetworkBytes);
    }
    answer_ = end(Result::kFailed, web.problem);
  }

  // Decodes what was sent.
  void take(const unsigned char* octets, std::size_t length) {
    if (!VerificationRun::admitDecoding(length)) {
      use_.refusedByBudget();
      answer_ = end(Result::kRefused, "the verification has read too much already");
      return;
    }
    std::string problem = "the body is no CRL";
    try {
      answer_.crl = readFirstCRL(octets, length);
    } catch (const Exception& failure) {
      problem += ": " + failure.stringParameter();
    }
    if (answer_.crl.empty()) {
      answer_.failure = {.kind = HTTP::Failure::Kind::kMalformed,
                         .detail = HTTP::detailOf(problem)};
      use_.failed({.failure = UseFacts::Failure::kMalformed, .reason = problem});
      answer_ = end(Result::kFailed, problem);
      return;
    }
    use_.found(1);
    ObjectOrigins::note(answer_.crl, {VerificationReport::Origin::Kind::kNetwork, use_.origin()});
    answer_.result = Result::kFetched;
  }

  const Uri& uri_;
  const HTTP::Validators& validators_;
  const RetrievalSettings& settings_;
  FetchDesk& desk_;
  SourceUse use_;
  HostAsking host_;
  std::size_t limit_ = 0;
  FetchedCRL answer_;
};

}  // namespace

FetchedCRL fetchCRL(const Uri& uri, const HTTP::Validators& validators,
                    const RetrievalSettings& settings, FetchDesk& desk) {
  return Exchange(uri, validators, settings, desk).run();
}

}  // namespace Velantrix::Crypto::PKX509
