#include "foundation/net/ldap/LDAPStream.h"

#include "foundation/base/Fail.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/HostResolver.h"
#include "foundation/net/NetworkBudget.h"

#include <array>
#include <cerrno>
#include <netdb.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace Velantrix {

namespace {

constexpr Origin kHere{"LDAPStream", "LDAPStream"};

struct FreeAddresses {
  void operator()(addrinfo* addresses) const noexcept { ::freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// The C library's resolver is given numbers only: for names it takes no deadline.
Addresses numeric(const std::string& host, unsigned short port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | AI_NUMERICHOST;
  addrinfo* found = nullptr;
  const int status = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  Addresses addresses(found);
  if (status != 0) fail(kHere, host + ": " + ::gai_strerror(status));
  return addresses;
}

void failIfCancelled() {
  if (Cancellation::requested()) fail(kHere, "Somebody asked to stop.");
}

// False when the deadline has passed, or the time that the verification has for the network.
bool waitFor(int socket, short events, const Deadline& deadline) {
  const NetworkTimer timer(std::chrono::milliseconds(deadline.left()));
  const Deadline end(timer.deadline());
  for (;;) {
    std::array entries{pollfd{socket, events, 0}, pollfd{Cancellation::descriptor(), POLLIN, 0}};
    const int ready = ::poll(entries.data(), entries.size(), end.left());
    const int error = errno;
    failIfCancelled();
    if (ready > 0 && entries.front().revents != 0) return true;
    if (ready < 0 && error != EINTR) {
      fail(kHere, std::generic_category().message(error));
    }
    if (end.passed()) return false;
  }
}

// 0, or the number of the error that kept it from connecting.
int connectTo(const addrinfo& address, const Deadline& deadline, FileDescriptor& socket) {
  FileDescriptor made(::socket(
      address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
  if (!made.valid()) return errno;
  if (::connect(made.get(), address.ai_addr, address.ai_addrlen) != 0) {
    // A connect that a signal interrupts goes on by itself, as one in progress does.
    if (errno != EINPROGRESS && errno != EINTR) return errno;
    if (!waitFor(made.get(), POLLOUT, deadline)) return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(made.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errno;
    if (error != 0) return error;
  }
  socket = std::move(made);
  return 0;
}

}  // namespace

LDAPStream::LDAPStream(const LDAPConnection::Server& server, const Deadline& deadline) {
  failIfCancelled();
  if (!NetworkBudget::hasTime()) {
    fail(kHere, server.uri() + ": The time for the network is spent.");
  }
  const std::vector<std::string> hosts = resolveHost(server.host()).addresses;
  failIfCancelled();
  if (hosts.empty()) fail(kHere, server.host() + ": The host has no address.");
  auto left = static_cast<int>(hosts.size());
  int error = ETIMEDOUT;
  for (const std::string& host : hosts) {
    const Deadline share(std::chrono::milliseconds(deadline.left() / left--));
    error = connectTo(*numeric(host, server.port()), share, socket_);
    if (error == 0) return;
  }
  failSystem(kHere, server.uri(), error);
}

LDAPStream::~LDAPStream() = default;

void LDAPStream::startTls(const LDAPConnection::Server& server, const Deadline& deadline) {
  auto tls = std::make_unique<LDAPTls>(socket_.get(), server);
  for (;;) {
    wants_ = tls->handshake();
    if (wants_ == 0) break;
    wait(deadline);
  }
  tls_ = std::move(tls);
}

std::size_t LDAPStream::read(char* to, std::size_t size) {
  if (tls_ != nullptr) {
    const LDAPTls::Moved moved = tls_->read(to, size);
    wants_ = moved.wants;
    return moved.bytes;
  }
  const ssize_t count = ::recv(socket_.get(), to, size, 0);
  if (count > 0) return static_cast<std::size_t>(count);
  if (count == 0) fail(kHere, "The server has closed the connection.");
  if (!wouldBlock(errno)) fail(kHere, std::generic_category().message(errno));
  wants_ = POLLIN;
  return 0;
}

std::size_t LDAPStream::write(const char* from, std::size_t size) {
  if (tls_ != nullptr) {
    const LDAPTls::Moved moved = tls_->write(from, size);
    wants_ = moved.wants;
    return moved.bytes;
  }
  // A peer that has hung up is an error here and no signal to the process.
  const ssize_t count = ::send(socket_.get(), from, size, MSG_NOSIGNAL);
  if (count >= 0) return static_cast<std::size_t>(count);
  if (!wouldBlock(errno)) fail(kHere, std::generic_category().message(errno));
  wants_ = POLLOUT;
  return 0;
}

void LDAPStream::wait(const Deadline& deadline) const {
  // A peer that sends a byte now and then is always ready: the time is looked at in any case, and so is
  // whether somebody asks to stop.
  if (deadline.passed() || !waitFor(socket_.get(), wants_, deadline)) {
    fail(kHere, "The server did not answer in time.");
  }
}

}  // namespace Velantrix
