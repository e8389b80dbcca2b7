#include "soak/Front.h"

#include "support/Loopback.h"
#include "support/Peer.h"

#include <cerrno>
#include <exception>
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
  for (;;) {
    Descriptor connection = acceptUntil(stop_, listener_);
    if (connection.number() < 0) return;
    try {
      serve_(std::move(connection), stop_);
    } catch (const Peer::Stopped&) {
      return;
    } catch (const std::exception&) {
      // The server behind is not there. The client learns it by the end of its connection.
    }
  }
}

}  // namespace Velantrix::Test::Soak
