#include "foundation/net/http/HTTPFailure.h"

#include "foundation/base/Text.h"
#include "foundation/net/HostResolver.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/http/error.hpp>
#include <openssl/err.h>

namespace Velantrix::LW::HTTP {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

namespace {

// The same event has a name in every layer.
bool isEnd(const error_code& error) {
  return error == asio::error::eof || error == asio::ssl::error::stream_truncated ||
         error == http::error::end_of_stream || error == http::error::partial_message;
}

// Asio adds the part of OpenSSL that says it.
std::string reasonOfTls(const error_code& error) {
  const char* const reason = ERR_reason_error_string(static_cast<unsigned int>(error.value()));
  return detailOf(reason != nullptr ? reason : error.message());
}

}  // namespace

std::string detailOf(std::string_view text) {
  return std::string(cutText(text, Failure::kMaximumDetail));
}

Failure failureOf(Failure::Kind kind, const error_code& error) {
  // Nothing of ours is aborted for another reason.
  if (error == asio::error::operation_aborted) return {.kind = Failure::Kind::kCancelled};
  if (isEnd(error)) return {.kind = kind, .detail = "the server closed the connection"};
  if (error.category() == asio::error::get_ssl_category()) {
    return {.kind = Failure::Kind::kTls, .detail = reasonOfTls(error)};
  }
  const bool fromSystem = error.category() == boost::system::system_category();
  return {
      .kind = kind, .error = fromSystem ? error.value() : 0, .detail = detailOf(error.message())};
}

Failure failureOf(const HostAddresses& none) {
  if (none.status == HostAddresses::kNoTime) return {.kind = Failure::Kind::kNoTime};
  if (none.status == HostAddresses::kCancelled) return {.kind = Failure::Kind::kCancelled};
  return {.kind = Failure::Kind::kResolve, .error = none.status, .detail = detailOf(none.reason())};
}

}  // namespace Velantrix::LW::HTTP
