#include "support/FaultServer.h"

#include "support/Loopback.h"

#include <openssl/ssl.h>

#include <cerrno>
#include <signal.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <utility>

namespace Velantrix::Test {

namespace {

void require(bool done, const char* function) {
  if (!done) throw std::runtime_error(std::string("FaultServer: ") + function);
}

}  // namespace

FaultServer::FaultServer(Script script, const FaultServerOptions& options)
    : script_(std::move(script)),
      urlBegin_(std::string(options.certificate != nullptr ? "https" : "http") + "://" +
                options.address + ":"),
      listener_(bindTo(options.port, options.address)),
      port_(boundPort(listener_)),
      stop_(eventfd(0, EFD_CLOEXEC), "eventfd"),
      tls_(makeContext(options)) {
  if (listen(listener_.number(), SOMAXCONN) != 0) failWithError("listen", errno);
  acceptor_ = std::thread([this] { accept(); });
}

FaultServer::~FaultServer() {
  // Never read: it wakes all threads, now and at whatever they wait for next.
  if (eventfd_write(stop_.number(), 1) != 0) std::terminate();
  acceptor_.join();
}

std::string FaultServer::url(std::string_view path) const {
  return urlBegin_ + std::to_string(port_) + std::string(path);
}

FaultServer::Context FaultServer::makeContext(const FaultServerOptions& options) {
  if (options.certificate == nullptr) return nullptr;
  Context context(SSL_CTX_new(TLS_server_method()));
  require(context != nullptr, "SSL_CTX_new");
  // Sessions play no part here, and a ticket that nobody reads can turn a close into a reset.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  require(SSL_CTX_set_num_tickets(context.get(), 0) == 1, "SSL_CTX_set_num_tickets");
  require(SSL_CTX_use_certificate(context.get(), options.certificate->cert.get()) == 1,
          "SSL_CTX_use_certificate");
  require(SSL_CTX_use_PrivateKey(context.get(), options.certificate->key.get()) == 1,
          "SSL_CTX_use_PrivateKey");
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE);
  if (options.clientCA != nullptr) {
    require(
        X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), options.clientCA->get()) == 1,
        "X509_STORE_add_cert");
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  return context;
}

void FaultServer::accept() {
  for (;;) {
    Descriptor accepted = acceptUntil(stop_, listener_);
    if (accepted.number() < 0) break;
    connections_.emplace_back(
        [this, number = log_.opened(), connection = std::move(accepted)]() mutable {
          serve(std::move(connection), number);
        });
  }
  for (std::thread& connection : connections_) connection.join();
}

void FaultServer::serve(Descriptor connection, std::size_t number) {
  // TLS writes without MSG_NOSIGNAL. The signal goes to the thread that wrote, and stays there.
  sigset_t brokenPipe{};
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  try {
    Peer peer(std::move(connection), tls_.get(), stop_, log_, number);
    script_(peer);
    peer.close();
  } catch (const Peer::Stopped&) {
  } catch (const std::exception& error) {
    log_.failed(number, error.what());
  }
  log_.ended(number);
}

}  // namespace Velantrix::Test
