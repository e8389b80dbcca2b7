#include "ocsp/OCSPExchange.h"

#include "foundation/base/Log.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"
#include "foundation/base/URIText.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/FetchRecord.h"
#include "report/ExchangeFacts.h"

#include <pkx509/FixedPaths.h>

#include <exception>
#include <new>

namespace Velantrix::Crypto::PKX509::OCSP {

namespace HTTP = LW::HTTP;

namespace {

// RFC 6960, A.1: a POST to the URI that the certificate names, with the DER of the request.
std::string postHeader(const Uri& uri, std::size_t length) {
  return "POST " + requestTarget(uri) + " HTTP/1.0\r\nHost: " + authorityOf(uri) +
         "\r\nContent-Type: " + kRequestType + "\r\nContent-Length: " + std::to_string(length) +
         "\r\n\r\n";
}

std::optional<std::string> post(const Uri& uri, const std::string& request, SourceUse& use) {
  const HTTP::Answer answer =
      HTTP::exchange(uri, {kClientCertificateFile, kClientKeyFile},
                     {.header = postHeader(uri, request.size()),
                      .body = request,
                      .tooLarge = "the answer is larger than 1 MiB, or its header than 16 KiB"});
  use.bytes(answer.received);
  countExchange(answer.failure, answer.received);
  if (answer.outcome != HTTP::Connection::kComplete) {
    tellFailure(use, answer.failure);
    FetchRecord::notFetched(uri, answer.problem);
    return std::nullopt;
  }
  use.found(1);
  const LW::Buffer& content = answer.connection->content();
  return std::string(reinterpret_cast<const char*>(content.data()), content.length());
}

std::optional<std::string> askIfAdmitted(const Uri& uri, const Exchange& exchange, SourceUse& use) {
  if (connectionAdmitted()) return exchange(use);
  use.refused(notAdmitted());
  FetchRecord::notFetched(uri, "no connection is made for it, and a log line says why");
  return std::nullopt;
}

}  // namespace

ResponderAnswer askResponder(const Uri& responder, const std::string& request) {
  return askResponder(responder, [&](SourceUse& use) { return post(responder, request, use); });
}

ResponderAnswer askResponder(const Uri& responder, const Exchange& exchange) {
  const NoCancellation untilReturn;
  ResponderAnswer answer;
  SourceUse use(SourceRecord::Source::Kind::kOCSPResponder, SourceRecord::Source::Wanted::kAnswer,
                FetchRecord::placeOf(responder));
  if (!HTTP::isHandled(responder)) {
    use.refused(notSpoken(responder));
    log(kPriorityDebug, "OCSP: Scheme not handled. " + responder.asString());
    return answer;
  }
  try {
    use.during([&] { answer.body = askIfAdmitted(responder, exchange, use); });
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    FetchRecord::notFetched(responder, failure.what());
  }
  answer.missing = !answer.body.has_value();
  return answer;
}

}  // namespace Velantrix::Crypto::PKX509::OCSP
