#include "foundation/net/http/HTTPAccess.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/system/system_error.hpp>
#include <openssl/ssl.h>

#include <chrono>
#include <cstring>

namespace Velantrix::LW::HTTP {

namespace {

// Also where the scheme is "https:". Certificates in use count on it.
constexpr unsigned short kDefaultPort = 80;

void require(bool loaded, const char* what) {
  if (loaded) return;
  throw boost::system::system_error(boost::system::error_code(boost::asio::error::invalid_argument),
                                    what);
}

// Why an exchange that was begun came to nothing. Whole: it had all of its time.
std::string reasonOf(int outcome, const Connection& connection, const Request& request,
                     bool whole) {
  switch (outcome) {
    case Connection::kTimedOut:
      return whole ? "no answer in " + std::to_string(request.queryTime) + " s"
                   : "no answer in the time that was left for the network";
    case Connection::kCutShort:
      return "the answer ends in the middle";
    case Connection::kTooLarge:
      return request.tooLarge;
    case Connection::kOtherStatus:
      return "HTTP status " + std::to_string(connection.status());
    case Connection::kMalformed:
      return "the answer is not HTTP";
    default:
      return "the server closed the connection without an answer";
  }
}

void send(Connection& connection, const Request& request) {
  connection.send(request.header);
  if (request.body.empty()) return;
  RefBuffer body(request.body.size());
  std::memcpy(body->data(), request.body.data(), request.body.size());
  body->length(request.body.size());
  connection.send(body);
}

}  // namespace

bool isHandled(const Uri& uri) { return uri.scheme() == "http:" || uri.scheme() == "https:"; }

RefStream streamFor(const Uri& uri, const ClientIdentity& identity) {
  if (uri.scheme() != "https:") return RefStream(Stream::kPlain);
  RefStream stream(boost::asio::ssl::context_base::sslv23_client);
  SSL_CTX* const context = stream->tls()->native_handle();
  SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_NO_SSLv2);
  // OpenSSL would ask for the passphrase of an encrypted key at the terminal.
  SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return -1; });
  const Crypto::ErrorScope errors;
  require(SSL_CTX_use_certificate_file(context, identity.certificateFile, SSL_FILETYPE_PEM) == 1,
          identity.certificateFile);
  require(SSL_CTX_use_PrivateKey_file(context, identity.keyFile, SSL_FILETYPE_PEM) == 1,
          identity.keyFile);
  return stream;
}

boost::asio::ip::tcp::endpoint endpointFor(const IPAddress& address, const Uri& uri) {
  namespace ip = boost::asio::ip;
  const std::string text = address.asString(true);
  boost::system::error_code notSix;
  ip::address parsed = ip::make_address_v6(text, notSix);
  if (notSix) parsed = ip::make_address_v4(text);
  return {parsed, uri.port() != 0 ? uri.port() : kDefaultPort};
}

Answer exchange(const Uri& uri, const ClientIdentity& identity, const Request& request) {
  Answer answer;
  RefStream stream;
  try {
    stream = streamFor(uri, identity);
  } catch (const boost::system::system_error& failure) {
    answer.problem = std::string("client certificate or key: ") + failure.what();
    return answer;
  }
  const Host host(uri.hostname());
  if (host.address().empty()) {
    answer.problem = "could not resolve the host";
    return answer;
  }
  answer.connection = RefConnection(stream);
  Connection& connection = *answer.connection.operator->();
  if (!connection.connect(endpointFor(host.address(), uri))) {
    answer.problem = "could not connect";
    return answer;
  }
  const auto start = std::chrono::steady_clock::now();
  connection.maxQueryTime(request.queryTime);
  connection.maxContent(request.maxContent);
  send(connection, request);
  answer.outcome = connection.receive();
  if (answer.outcome != Connection::kComplete) {
    const auto taken = std::chrono::steady_clock::now() - start;
    answer.problem = reasonOf(answer.outcome, connection, request,
                              taken >= std::chrono::seconds(request.queryTime));
  }
  return answer;
}

}  // namespace Velantrix::LW::HTTP
