#include "retrieval/OCSPRetrieval.h"

#include "foundation/base/Hex.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/FetchRecord.h"
#include "ocsp/OCSPExchange.h"
#include "retrieval/HostAsking.h"

#include <openssl/evp.h>
#include <openssl/ocsp.h>

#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace HTTP = LW::HTTP;

namespace {

constexpr char kAnswerType[] = "application/ocsp-response";  // RFC 6960, A.2
constexpr std::size_t kMaximumAnswer = std::size_t{1024} * 1024;

// In one line.
std::string base64Of(const std::string& octets) {
  constexpr std::size_t kTriple = 3;
  constexpr std::size_t kQuadruple = 4;
  std::vector<unsigned char> text((octets.size() + kTriple - 1) / kTriple * kQuadruple + 1);
  const int length =
      EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(octets.data()),
                      static_cast<int>(octets.size()));
  return std::string(text.begin(), text.begin() + length);
}

// RFC 5019, 5: "Clients MUST properly URL-encode the base64 encoded OCSPRequest."
std::string encodedForURI(const std::string& base64) {
  std::string text;
  for (const char c : base64) {
    if (c == '+' || c == '/' || c == '=') {
      text += '%';
      appendHex(text, static_cast<unsigned char>(c));
    } else {
      text += c;
    }
  }
  return text;
}

bool isOCSPResponse(const std::string& body) {
  const ErrorScope errors;
  return decodeWhole(d2i_OCSP_RESPONSE, octets(body), body.size()) != nullptr;
}

class Question {
 public:
  Question(const Uri& responder, const std::string& request, const RetrievalSettings& settings,
           FetchDesk& desk, SourceUse& use)
      : responder_(responder),
        request_(request),
        settings_(settings),
        use_(use),
        host_(responder, FetchDesk::responderPlaceOf(responder), settings, desk, use) {}

  std::optional<std::string> ask() {
    if (const auto mark = host_.failedBefore()) {
      FetchRecord::notFetched(responder_, mark->reason);
      return std::nullopt;
    }
    const Uri get = settings_.preferCacheableOCSP ? ocspGetURI(responder_, request_) : Uri();
    if (get.isNull()) return post();
    const HTTP::WebAnswer web = send({.uri = get, .accept = kAnswerType});
    if (std::optional<std::string> body = bodyOf(web); body && isOCSPResponse(*body)) {
      return found(*std::move(body));
    }
    // RFC 6960, A.1: responders that know POST only are many.
    const bool answered = web.isComplete() || web.failure.kind == HTTP::Failure::Kind::kStatus;
    return answered ? post() : failed(web);
  }

 private:
  HTTP::WebAnswer send(const HTTP::WebRequest& request) {
    return host_.ask(request, settings_.ocspTime, kMaximumAnswer);
  }

  static std::optional<std::string> bodyOf(const HTTP::WebAnswer& web) {
    if (!web.isComplete()) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(web.content->data()), web.content->length());
  }

  std::optional<std::string> post() {
    const HTTP::WebAnswer web = send({.uri = responder_,
                                      .accept = kAnswerType,
                                      .body = request_,
                                      .contentType = OCSP::kRequestType});
    std::optional<std::string> body = bodyOf(web);
    return body ? found(*std::move(body)) : failed(web);
  }

  // Also what is no answer, for whoever reads it to say so.
  std::optional<std::string> found(std::string&& body) {
    host_.succeeded();
    if (!isOCSPResponse(body)) {
      host_.failed(
          {.kind = HTTP::Failure::Kind::kMalformed, .detail = "the body is no OCSP answer"});
    }
    use_.found(1);
    return std::move(body);
  }

  std::optional<std::string> failed(const HTTP::WebAnswer& web) {
    host_.failed(web, kMaximumAnswer);
    FetchRecord::notFetched(responder_, web.problem);
    return std::nullopt;
  }

  const Uri& responder_;
  const std::string& request_;
  const RetrievalSettings& settings_;
  SourceUse& use_;
  HostAsking host_;
};

}  // namespace

Uri ocspGetURI(const Uri& responder, const std::string& request) {
  const std::string& text = responder.asString();
  if (request.size() > kMaximumOCSPGet || text.find_first_of("?#") != std::string::npos)
    return Uri();
  const std::string all =
      text + (text.ends_with('/') ? "" : "/") + encodedForURI(base64Of(request));
  return all.size() > kMaximumOCSPGet ? Uri() : Uri(all);
}

std::optional<std::string> retrieveOCSP(const Uri& responder, const std::string& request,
                                        const RetrievalSettings& settings, FetchDesk& desk) {
  return OCSP::askResponder(responder,
                            [&](SourceUse& use) {
                              return Question(responder, request, settings, desk, use).ask();
                            })
      .body;
}

}  // namespace Velantrix::Crypto::PKX509
