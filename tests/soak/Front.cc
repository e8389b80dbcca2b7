#include "soak/Front.h"

#include "support/Loopback.h"
#include "support/Peer.h"

#include <array>
#include <cerrno>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <utility>

namespace Velantrix::Test::Soak {

Front::Front(std::uint16_t port, Serve serve) : port_(port), serve_(std::move(serve)) { open(); }

Front::~Front() { close(); }

void Front::open() {
  if (thread_.joinable()) return;
  listener_ = bindTo(port_);
  stop_ = Descriptor(eventfd(0, EFD_CLOEXEC), "eventfd");
  if (listen(listener_.number(), SOMAXCONN) != 0) failWithError("listen", errno);
  thread_ = std::thread([this] { run(); });
}

void Front::close() {
  if (!thread_.joinable()) return;
  if (eventfd_write(stop_.number(), 1) != 0) std::terminate();
  thread_.join();
  listener_.reset();
  stop_.reset();
}

void Front::run() {
  std::array<pollfd, 2> wait = {{{stop_.number(), POLLIN, 0}, {listener_.number(), POLLIN, 0}}};
  while (wait[0].revents == 0) {
    if (poll(wait.data(), wait.size(), -1) < 0 || wait[1].revents == 0) continue;
    const int accepted =
        accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (accepted < 0) continue;
    try {
      serve_(Descriptor(accepted, "accept4"), stop_);
    } catch (const Peer::Stopped&) {
      return;
    } catch (const std::exception&) {
      // The server behind is not there. The client learns it by the end of its connection.
    }
  }
}

}  // namespace Velantrix::Test::Soak
