#include "foundation/net/http/HTTPAccess.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/system/system_error.hpp>
#include <openssl/ssl.h>

namespace Velantrix::LW::HTTP {

namespace {

// Also where the scheme is "https:". Certificates in use count on it.
constexpr unsigned short kDefaultPort = 80;

void require(bool loaded, const char* what) {
  if (loaded) return;
  throw boost::system::system_error(boost::system::error_code(boost::asio::error::invalid_argument),
                                    what);
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

}  // namespace Velantrix::LW::HTTP
