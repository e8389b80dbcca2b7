#include "support/Peer.h"

#include "support/Pki.h"

#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>

namespace Velantrix::Test {

namespace {

std::string errorText(const char* what) {
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_peek_last_error(), text.data(), text.size());
  return std::string(what) + ": " + text.data();
}

std::string subjectOf(const SSL* ssl) {
  const Owned<X509> cert(SSL_get1_peer_certificate(ssl));
  if (!cert) return {};
  const Owned<BIO> out(BIO_new(BIO_s_mem()));
  if (!out ||
      X509_NAME_print_ex(out.get(), X509_get_subject_name(cert.get()), 0, XN_FLAG_RFC2253) < 0) {
    throw std::runtime_error(errorText("X509_NAME_print_ex"));
  }
  char* text = nullptr;  // the BIO's
  const long length = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<std::size_t>(std::max(length, 0L))};
}

/// The length of a request whose header is complete.
std::size_t requestLength(const std::string& bytes, std::size_t headerLength) {
  std::string header = bytes.substr(0, headerLength);
  std::transform(header.begin(), header.end(), header.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  constexpr std::string_view kName = "\r\ncontent-length:";
  const std::size_t found = header.find(kName);
  if (found == std::string::npos) return headerLength;
  const std::size_t value = header.find_first_not_of(' ', found + kName.size());
  std::size_t length = 0;
  std::from_chars(header.data() + value, header.data() + header.size(), length);
  return headerLength + length;
}

}  // namespace

Peer::Peer(Descriptor socket, SSL_CTX* tls, const Descriptor& stop, FaultLog& log,
           std::size_t number)
    : socket_(std::move(socket)), stop_(stop), log_(log), number_(number) {
  if (tls != nullptr) handshake(tls);
}

void Peer::handshake(SSL_CTX* context) {
  ssl_.reset(SSL_new(context));
  if (!ssl_ || SSL_set_fd(ssl_.get(), socket_.number()) != 1) {
    throw std::runtime_error(errorText("SSL_new"));
  }
  if (!repeatTls([this] { return SSL_accept(ssl_.get()); })) {
    throw std::runtime_error(errorText("SSL_accept"));
  }
  log_.clientSubject(number_, subjectOf(ssl_.get()));
  const char* const name = SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name);
  if (name != nullptr) log_.serverName(number_, name);
}

std::optional<std::string> Peer::readRequest() {
  constexpr std::string_view kEnd = "\r\n\r\n";
  for (;;) {
    const std::size_t end = buffer_.find(kEnd);
    if (end != std::string::npos) {
      const std::size_t length = requestLength(buffer_, end + kEnd.size());
      if (buffer_.size() >= length) {
        std::string request = buffer_.substr(0, length);
        buffer_.erase(0, length);
        log_.request(request);
        return request;
      }
    }
    if (!receive()) return std::nullopt;
  }
}

bool Peer::write(std::string_view bytes) {
  while (!bytes.empty()) {
    if (broken_ || !wait(POLLOUT)) return false;
    std::size_t count = 0;
    if (ssl_) {
      if (!repeatTls(
              [&] { return SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count); })) {
        return false;
      }
    } else {
      const ssize_t sent = send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      broken_ = sent < 0 && errno != EAGAIN && errno != EINTR;
      if (sent > 0) count = static_cast<std::size_t>(sent);
    }
    bytes.remove_prefix(count);
  }
  return true;
}

bool Peer::writeSlowly(std::string_view bytes, std::chrono::milliseconds interval) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) pause(interval);
    if (!write(bytes.substr(i, 1))) return false;
  }
  return true;
}

void Peer::pause(std::chrono::milliseconds time) { wait(0, static_cast<int>(time.count())); }

void Peer::waitForPeerToClose() {
  while (receive()) buffer_.clear();
}

void Peer::close() {
  // Does not wait for the client's farewell; where its own cannot be sent, the client is gone.
  if (ssl_ && !broken_) static_cast<void>(SSL_shutdown(ssl_.get()));
  cut();
}

void Peer::cut() {
  broken_ = true;
  if (socket_.number() >= 0) shutdown(socket_.number(), SHUT_WR);
  socket_.reset();
}

void Peer::reset() {
  const linger now{1, 0};
  if (setsockopt(socket_.number(), SOL_SOCKET, SO_LINGER, &now, sizeof now) != 0) {
    failWithError("SO_LINGER", errno);
  }
  broken_ = true;
  socket_.reset();
}

bool Peer::stopping() const {
  pollfd stop{stop_.number(), POLLIN, 0};
  return poll(&stop, 1, 0) > 0;
}

/// Appends what comes next to the buffer; false when nothing will come any more.
bool Peer::receive() {
  std::array<char, 16384> block{};
  std::size_t count = 0;
  while (!broken_ && count == 0) {
    if (ssl_) {
      repeatTls([&] { return SSL_read_ex(ssl_.get(), block.data(), block.size(), &count); });
      continue;
    }
    if (!wait(POLLIN)) break;
    const ssize_t got = recv(socket_.number(), block.data(), block.size(), 0);
    broken_ = got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR);
    if (got > 0) count = static_cast<std::size_t>(got);
  }
  buffer_.append(block.data(), count);
  log_.received(number_, {block.data(), count});
  return count > 0;
}

/// Waits for the socket, or without events for the time only. False when the time is over.
bool Peer::wait(short events, int timeout) {
  std::array<pollfd, 2> waiting = {
      {{stop_.number(), POLLIN, 0}, {events != 0 ? socket_.number() : -1, events, 0}}};
  int count = 0;
  do {
    count = poll(waiting.data(), waiting.size(), timeout);
  } while (count < 0 && errno == EINTR);
  if (count < 0) failWithError("poll", errno);
  if (waiting[0].revents != 0) throw Stopped();
  return count > 0;
}

/// Makes a step of TLS until it is done; false, and the end of the connection, when it fails.
bool Peer::repeatTls(const std::function<int()>& step) {
  while (!broken_) {
    if (stopping()) throw Stopped();
    ERR_clear_error();
    const int result = step();
    if (result == 1) return true;
    switch (SSL_get_error(ssl_.get(), result)) {
      case SSL_ERROR_WANT_READ:
        wait(POLLIN);
        break;
      case SSL_ERROR_WANT_WRITE:
        wait(POLLOUT);
        break;
      default:
        broken_ = true;
    }
  }
  return false;
}

}  // namespace Velantrix::Test
