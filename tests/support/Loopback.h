// Ports of the loopback interface.
//
//   const ReservedPort port;                              // on 127.0.0.1
//   client.connect("127.0.0.1", port.number());           // refused
//   BackgroundProcess server({"...", "--port", port.text()});
//   if (hasIPv6Loopback()) const ReservedPort other("::1");
//
#pragma once

#include "support/Descriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Velantrix::Test {

/// A port that nobody else gets while the object lives. It is bound and not listened on: connecting
/// is refused. A server that sets SO_REUSEADDR, as nearly all do, can still bind it, also again
/// after it was stopped; so there is no race for it, as there is for a port that was bound and
/// given back.
class ReservedPort {
 public:
  /// Throws std::runtime_error when the machine has no such address.
  explicit ReservedPort(const char* address = "127.0.0.1");

  std::uint16_t number() const { return number_; }
  std::string text() const { return std::to_string(number_); }

 private:
  Descriptor socket_;
  std::uint16_t number_;
};

/// A TCP socket with SO_REUSEADDR, bound to the port; 0: to a free one.
Descriptor bindTo(std::uint16_t port, const char* address = "127.0.0.1");

/// The port that a socket is bound to.
std::uint16_t boundPort(const Descriptor& socket);

/// Throws std::system_error with ECONNREFUSED when nobody listens there.
Descriptor connectTo(std::uint16_t port, const char* address = "127.0.0.1");

/// A listener that does not answer at all, as a host behind a filter does not: its queue is full.
class DeafListener {
 public:
  explicit DeafListener(std::uint16_t port = 0, const char* address = "127.0.0.1");

  std::uint16_t port() const { return boundPort(listener_); }

 private:
  Descriptor listener_;
  std::vector<Descriptor> queue_;
};

/// The next connection that `listener` gets, set not to block; none, with the number -1, once `stop`
/// is readable.
Descriptor acceptUntil(const Descriptor& stop, const Descriptor& listener);

bool hasIPv6Loopback();

}  // namespace Velantrix::Test
