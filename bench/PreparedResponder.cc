#include "PreparedResponder.h"

#include "support/Loopback.h"
#include "support/Peer.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <poll.h>
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
  while (true) {
    std::array<pollfd, 2> ready{{{listener_.number(), POLLIN, 0}, {stop_.number(), POLLIN, 0}}};
    if (poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) return;
    if ((ready[1].revents & POLLIN) != 0) return;
    const int accepted =
        accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (accepted < 0) continue;
    Test::FaultLog log;  // of this connection only: a benchmark makes a great many
    try {
      Test::Peer peer(Descriptor(accepted, "accept"), nullptr, stop_, log, log.opened());
      if (peer.readRequest()) peer.write(response_);
    } catch (const Test::Peer::Stopped&) {
      return;
    }
  }
}

}  // namespace Velantrix::Bench
