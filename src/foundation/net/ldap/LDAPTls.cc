#include "foundation/net/ldap/LDAPTls.h"

#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/File.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <list>
#include <new>
#include <poll.h>
#include <string>
#include <sys/socket.h>

namespace Velantrix {

namespace {

using Crypto::ErrorScope;
using Crypto::Owned;
using Crypto::PKX509::CertificateFactory;
using Crypto::PKX509::RefCertificate;

constexpr Origin kHere{"LDAPTls", "LDAPTls"};

// SSL_get_error() is told by the error queue and wants it empty. Nothing of a caller's is lost that
// would not be anyway: the handshake's state machine empties the queue by itself.
class CleanErrors {
 public:
  CleanErrors() noexcept { ERR_clear_error(); }
  ~CleanErrors() { ERR_clear_error(); }
  CleanErrors(const CleanErrors&) = delete;
  CleanErrors& operator=(const CleanErrors&) = delete;
};

bool isAddress(const std::string& host) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return inet_pton(AF_INET, host.c_str(), address.data()) == 1 ||
         inet_pton(AF_INET6, host.c_str(), address.data()) == 1;
}

// --- A BIO over a socket. OpenSSL's own writes with write(2), and a peer that has hung up then
// ends the process by SIGPIPE.

int& socketOf(BIO* bio) { return *static_cast<int*>(BIO_get_data(bio)); }

int s_bio_read(BIO* bio, char* to, int size) {
  BIO_clear_retry_flags(bio);
  const ssize_t count = ::recv(socketOf(bio), to, static_cast<std::size_t>(size), 0);
  if (count < 0 && wouldBlock(errno)) BIO_set_retry_read(bio);
  return static_cast<int>(count);
}

int s_bio_write(BIO* bio, const char* from, int size) {
  BIO_clear_retry_flags(bio);
  const ssize_t count = ::send(socketOf(bio), from, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  if (count < 0 && wouldBlock(errno)) BIO_set_retry_write(bio);
  return static_cast<int>(count);
}

long s_bio_ctrl(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

// Made once and never freed: BIO types are numbered, and there are few numbers.
const BIO_METHOD* socketMethod() {
  static const BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "LDAP socket");
    if (made == nullptr) throw std::bad_alloc();
    if (BIO_meth_set_read(made, s_bio_read) != 1 || BIO_meth_set_write(made, s_bio_write) != 1 ||
        BIO_meth_set_ctrl(made, s_bio_ctrl) != 1) {
      BIO_meth_free(made);
      throw std::bad_alloc();
    }
    return made;
  }();
  return method;
}

}  // namespace

LDAPTls::LDAPTls(int socket, const LDAPConnection::Server& server) : socket_(socket) {
  const ErrorScope errors;
  context_.reset(SSL_CTX_new(TLS_client_method()));
  if (context_ == nullptr) fail(kHere, "There is no TLS to be had.");
  SSL_CTX_set_mode(context_.get(),
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  const bool verify = server.options().verifyPeer;
  SSL_CTX_set_verify(context_.get(), verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
  if (verify) trust(server);

  ssl_.reset(SSL_new(context_.get()));
  Owned<BIO> bio(BIO_new(socketMethod()));
  if (ssl_ == nullptr || bio == nullptr) throw std::bad_alloc();
  BIO_set_data(bio.get(), &socket_);
  BIO_set_init(bio.get(), 1);
  SSL_set_bio(ssl_.get(), bio.get(), bio.get());
  static_cast<void>(bio.release());  // one reference serves both directions

  const std::string& host = server.host();
  const bool address = isAddress(host);
  // RFC 6066, 3: a server name is a DNS name, never an address. SSL_set_tlsext_host_name() would be
  // a macro with a cast in it; the name is only read.
  bool named = address || SSL_ctrl(ssl_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                                   TLSEXT_NAMETYPE_host_name, const_cast<char*>(host.c_str())) == 1;
  if (verify) {
    named = named &&
            (address ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), host.c_str()) == 1
                     : SSL_set1_host(ssl_.get(), host.c_str()) == 1);
  }
  if (!named) fail(kHere, "\"" + host + "\" cannot be named to a TLS server.");
}

LDAPTls::~LDAPTls() = default;

void LDAPTls::trust(const LDAPConnection::Server& server) {
  X509_STORE* const store = SSL_CTX_get_cert_store(context_.get());  // borrowed
  const std::string& file = server.options().caFile;
  if (file.empty()) {
    // SSL_CTX_set_default_verify_paths would look at the environment.
    if (X509_STORE_load_path(store, X509_get_default_cert_dir()) != 1) {
      fail(kHere, "The system's certificates cannot be used.");
    }
    return;
  }
  // Read by the factory, because OpenSSL's own loader asks for the passphrase of an encrypted file.
  std::list<RefCertificate> authorities;
  CertificateFactory::read(File::Path(file), authorities);
  if (authorities.empty()) fail(kHere, file + ": There is no certificate in it.");
  for (const RefCertificate& authority : authorities) {
    if (X509_STORE_add_cert(store, authority) != 1) {
      fail(kHere, file + ": A certificate cannot be used.");
    }
  }
}

short LDAPTls::wants(int result, const char* doing) const {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return POLLIN;
    case SSL_ERROR_WANT_WRITE:
      return POLLOUT;
    default:
      break;
  }
  const long verdict = SSL_get_verify_result(ssl_.get());
  const unsigned long error = ERR_peek_last_error();
  const char* const reason = ERR_reason_error_string(error);
  std::string text(doing);
  if (verdict != X509_V_OK && SSL_get_verify_mode(ssl_.get()) != SSL_VERIFY_NONE) {
    text += X509_verify_cert_error_string(verdict);
  } else {
    text += error != 0 && reason != nullptr ? reason : "the connection was closed";
  }
  fail(kHere, text);
}

short LDAPTls::handshake() {
  const CleanErrors errors;
  const int result = SSL_connect(ssl_.get());
  return result == 1 ? short{0} : wants(result, "TLS handshake: ");
}

LDAPTls::Moved LDAPTls::read(char* to, std::size_t size) {
  const CleanErrors errors;
  Moved moved{0, 0};
  const int result = SSL_read_ex(ssl_.get(), to, size, &moved.bytes);
  if (result != 1) moved = {0, wants(result, "TLS: ")};
  return moved;
}

LDAPTls::Moved LDAPTls::write(const char* from, std::size_t size) {
  const CleanErrors errors;
  Moved moved{0, 0};
  const int result = SSL_write_ex(ssl_.get(), from, size, &moved.bytes);
  if (result != 1) moved = {0, wants(result, "TLS: ")};
  return moved;
}

}  // namespace Velantrix
