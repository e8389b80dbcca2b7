#include "PreparedResponder.h"

#include "support/Loopback.h"
#include "support/Peer.h"

#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Velantrix::Bench {

using Test::Descriptor;
using Test::failWithError;

PreparedResponder::PreparedResponder(std::string_view answer)
    : response_("HTTP/1.0 200 OK\r\nContent-Type: application/ocsp-response\r\nContent-Length: " +
                std::to_string(answer.size()) + "\r\n\r\n" + std::string(answer)),
      listener_(Test::bindTo(0)),
      stop_(eventfd(0, EFD_CLOEXEC), "eventfd") {
  if (listen(listener_.number(), SOMAXCONN) != 0) failWithError("listen", errno);
  thread_ = std::thread([this] { serve(); });
}

PreparedResponder::~PreparedResponder() {
  const std::uint64_t one = 1;
  static_cast<void>(write(stop_.number(), &one, sizeof one) == sizeof one);
  thread_.join();
}

std::string PreparedResponder::port() const { return std::to_string(Test::boundPort(listener_)); }

void PreparedResponder::serve() const {
  for (;;) {
    Descriptor connection = Test::acceptUntil(stop_, listener_);
    if (connection.number() < 0) return;
    Test::FaultLog log;  // of this connection only: a benchmark makes a great many
    try {
      Test::Peer peer(std::move(connection), nullptr, stop_, log, log.opened());
      if (peer.readRequest()) peer.write(response_);
    } catch (const Test::Peer::Stopped&) {
      return;
    }
  }
}

}  // namespace Velantrix::Bench
