#include "foundation/net/http/HTTPAccess.h"

#include "foundation/net/HostResolver.h"
#include "foundation/net/http/HTTPTransport.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Velantrix::LW::HTTP {

namespace {

// Also where the scheme is "https:". Certificates in use count on it.
constexpr unsigned short kDefaultPort = 80;

// Why OpenSSL has not loaded a file. That the system refused it is OpenSSL's last error, and what the
// system said stands in errno.
Failure whyNotLoaded(const char* file) {
  Failure failure{.kind = Failure::Kind::kClientIdentity};
  const int system = errno;
  const unsigned long error = ERR_peek_last_error();
  std::string reason = "not loaded";
  if (ERR_GET_REASON(error) == ERR_R_SYS_LIB && system != 0) {
    failure.error = system;
    reason = std::generic_category().message(system);
  } else if (const char* const text = ERR_reason_error_string(error)) {
    reason = text;
  }
  failure.detail = detailOf(std::string(file) + ": " + reason);
  failure.file = file;
  return failure;
}

void require(int (*load)(SSL_CTX*, const char*, int), SSL_CTX* context, const char* file) {
  errno = 0;
  if (load(context, file, SSL_FILETYPE_PEM) != 1) throw IdentityError(file, whyNotLoaded(file));
}

void send(Connection& connection, const Request& request) {
  connection.send(request.header);
  if (request.body.empty()) return;
  RefBuffer body(request.body.size());
  std::memcpy(body->data(), request.body.data(), request.body.size());
  body->length(request.body.size());
  connection.send(body);
}

// Over TLS, with nothing loaded.
RefStream tlsStream() {
  RefStream stream(boost::asio::ssl::context_base::sslv23_client);
  SSL_CTX* const context = stream->tls()->native_handle();
  SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_NO_SSLv2);
  // OpenSSL would ask for the passphrase of an encrypted key at the terminal.
  SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return -1; });
  return stream;
}

void attempt(const Uri& uri, const ClientIdentity& identity, const Request& request,
             Answer& answer) {
  RefStream stream = streamFor(uri, &identity, answer.failure, answer.problem);
  if (stream.empty()) return;
  const auto endpoint = findEndpoint(uri, answer.failure);
  if (!endpoint.has_value()) {
    answer.problem = problemOf(answer.failure, "could not resolve the host");
    return;
  }
  answer.connection = RefConnection(stream);
  Connection& connection = *answer.connection.operator->();
  if (!connection.connect(*endpoint)) {
    answer.failure = connection.failure();
    answer.problem = problemOf(answer.failure, "could not connect");
    return;
  }
  connection.maxQueryTime(request.queryTime);
  connection.maxContent(request.maxContent);
  send(connection, request);
  answer.outcome = connection.receive();
  answer.received = connection.contentReceived();
  if (answer.outcome == Connection::kComplete) return;
  answer.failure = connection.failure();
  answer.problem = problemOf(answer.outcome, answer.failure, request.tooLarge);
}

}  // namespace

IdentityError::IdentityError(const char* file, Failure why)
    : system_error(boost::system::error_code(boost::asio::error::invalid_argument), file),
      failure(std::move(why)) {}

bool isHandled(const Uri& uri) { return uri.scheme() == "http:" || uri.scheme() == "https:"; }

RefStream streamFor(const Uri& uri, const ClientIdentity& identity) {
  if (uri.scheme() != "https:") return RefStream(Stream::kPlain);
  RefStream stream = tlsStream();
  SSL_CTX* const context = stream->tls()->native_handle();
  const Crypto::ErrorScope errors;
  require(SSL_CTX_use_certificate_file, context, identity.certificateFile);
  require(SSL_CTX_use_PrivateKey_file, context, identity.keyFile);
  return stream;
}

RefStream streamFor(const Uri& uri, const ClientIdentity* identity, Failure& failure,
                    std::string& problem) {
  try {
    if (identity != nullptr) return streamFor(uri, *identity);
    return uri.scheme() == "https:" ? tlsStream() : RefStream(Stream::kPlain);
  } catch (const IdentityError& error) {
    problem = std::string("client certificate or key: ") + error.what();
    failure = error.failure;
  } catch (const boost::system::system_error& error) {
    problem = std::string("client certificate or key: ") + error.what();
    failure = failureOf(Failure::Kind::kTls, error.code());
  }
  return {};
}

boost::asio::ip::tcp::endpoint endpointFor(const IPAddress& address, const Uri& uri) {
  namespace ip = boost::asio::ip;
  const std::string text = address.asString(true);
  boost::system::error_code notSix;
  ip::address parsed = ip::make_address_v6(text, notSix);
  if (notSix) parsed = ip::make_address_v4(text);
  return {parsed, uri.port() != 0 ? uri.port() : kDefaultPort};
}

std::optional<boost::asio::ip::tcp::endpoint> findEndpoint(const Uri& uri, Failure& failure) {
  const HostAddresses host = resolveHost(uri.hostname());
  if (!host.addresses.empty()) return endpointFor(IPAddress(host.addresses.front()), uri);
  failure = failureOf(host);
  return std::nullopt;
}

Answer exchange(const Uri& uri, const ClientIdentity& identity, const Request& request) {
  const auto start = std::chrono::steady_clock::now();
  Answer answer;
  attempt(uri, identity, request, answer);
  answer.taken = std::chrono::steady_clock::now() - start;
  return answer;
}

}  // namespace Velantrix::LW::HTTP
