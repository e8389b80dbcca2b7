#include "support/Loopback.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>

namespace Velantrix::Test {

namespace {

/// The socket functions take all kinds of addresses as one type.
struct Address {
  Address(const char* text, std::uint16_t port) {
    sockaddr_in6 six{};
    sockaddr_in four{};
    if (inet_pton(AF_INET6, text, &six.sin6_addr) == 1) {
      six.sin6_family = AF_INET6;
      six.sin6_port = htons(port);
      fill(six);
    } else if (inet_pton(AF_INET, text, &four.sin_addr) == 1) {
      four.sin_family = AF_INET;
      four.sin_port = htons(port);
      fill(four);
    } else {
      throw std::runtime_error(std::string("not an address: ") + text);
    }
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&any); }
  Descriptor makeSocket(int flags = 0) const {
    return {socket(any.ss_family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0), "socket"};
  }

  sockaddr_storage any{};
  socklen_t size = 0;

 private:
  template <class One>
  void fill(const One& one) {
    std::memcpy(&any, &one, sizeof one);
    size = sizeof one;
  }
};

}  // namespace

Descriptor bindTo(std::uint16_t port, const char* address) {
  const Address any(address, port);
  Descriptor bound = any.makeSocket();
  const int on = 1;
  if (setsockopt(bound.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    failWithError("SO_REUSEADDR", errno);
  }
  if (bind(bound.number(), any.get(), any.size) != 0) {
    failWithError(std::string("bind ") + address, errno);
  }
  return bound;
}

std::uint16_t boundPort(const Descriptor& socket) {
  sockaddr_storage any{};
  socklen_t size = sizeof any;
  if (getsockname(socket.number(), reinterpret_cast<sockaddr*>(&any), &size) != 0) {
    failWithError("getsockname", errno);
  }
  // The port is at the same place in both kinds of address.
  static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
  in_port_t port = 0;
  std::memcpy(&port, reinterpret_cast<const char*>(&any) + offsetof(sockaddr_in, sin_port),
              sizeof port);
  return ntohs(port);
}

Descriptor connectTo(std::uint16_t port, const char* address) {
  const Address any(address, port);
  Descriptor connected = any.makeSocket();
  if (connect(connected.number(), any.get(), any.size) != 0) {
    failWithError(std::string("connect ") + address, errno);
  }
  return connected;
}

DeafListener::DeafListener(std::uint16_t port, const char* address)
    : listener_(bindTo(port, address)) {
  constexpr int kMoreThanFit = 4;
  if (listen(listener_.number(), 0) != 0) failWithError("listen", errno);
  const Address own(address, boundPort(listener_));
  for (int i = 0; i < kMoreThanFit; ++i) {
    queue_.push_back(own.makeSocket(SOCK_NONBLOCK));
    if (connect(queue_.back().number(), own.get(), own.size) != 0 && errno != EINPROGRESS) {
      failWithError(std::string("connect ") + address, errno);
    }
  }
}

Descriptor acceptUntil(const Descriptor& stop, const Descriptor& listener) {
  for (;;) {
    std::array<pollfd, 2> wait = {{{stop.number(), POLLIN, 0}, {listener.number(), POLLIN, 0}}};
    if (poll(wait.data(), wait.size(), -1) < 0) continue;
    if (wait[0].revents != 0) return {};
    const int accepted = accept4(listener.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (accepted >= 0) return {accepted, "accept4"};
  }
}

ReservedPort::ReservedPort(const char* address)
    : socket_(bindTo(0, address)), number_(boundPort(socket_)) {}

bool hasIPv6Loopback() {
  try {
    bindTo(0, "::1");
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace Velantrix::Test
