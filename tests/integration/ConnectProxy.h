// A proxy that makes tunnels, one after the other (RFC 9110, 9.3.6).
//
//   const ConnectProxy proxy;
//   ... fetch("https://127.0.0.1:<port>/") through proxy.url() ...
//   EXPECT_EQ(proxy.requests().at(0), "CONNECT 127.0.0.1:<port> HTTP/1.1\r\n...");
//
#pragma once

#include "support/Descriptor.h"
#include "support/Loopback.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace Velantrix::Test {

class ConnectProxy {
 public:
  ConnectProxy() : listener_(bindTo(0)), stop_(eventfd(0, EFD_CLOEXEC), "eventfd") {
    if (listen(listener_.number(), SOMAXCONN) != 0) failWithError("listen", errno);
    thread_ = std::thread([this] { run(); });
  }
  ~ConnectProxy() {
    eventfd_write(stop_.number(), 1);
    thread_.join();
  }
  ConnectProxy(const ConnectProxy&) = delete;
  ConnectProxy& operator=(const ConnectProxy&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(boundPort(listener_)); }
  std::vector<std::string> requests() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void run() {
    for (;;) {
      const Descriptor client = acceptUntil(stop_, listener_);
      if (client.number() < 0) return;
      const std::string request = readHeader(client);
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
      }
      const std::string target = request.substr(0, request.find(" HTTP"));
      const auto port = static_cast<std::uint16_t>(std::stoi(target.substr(target.rfind(':') + 1)));
      const Descriptor server = connectTo(port);
      write(client, "HTTP/1.1 200 Connection established\r\nVia: 1.1 test\r\n\r\n");
      while (relay(client, server)) {
      }
    }
  }

  // Nothing when the client is gone, or the test at its end.
  std::string readHeader(const Descriptor& client) const {
    std::string all;
    while (!all.ends_with("\r\n\r\n")) {
      std::array<pollfd, 2> wait = {{{stop_.number(), POLLIN, 0}, {client.number(), POLLIN, 0}}};
      if (poll(wait.data(), wait.size(), -1) < 0) continue;
      char byte = 0;
      if (wait[0].revents != 0 || recv(client.number(), &byte, 1, 0) != 1) return {};
      all += byte;
    }
    return all;
  }

  // What either says is told the other. False when one of them is gone.
  bool relay(const Descriptor& client, const Descriptor& server) const {
    std::array<pollfd, 3> wait = {
        {{stop_.number(), POLLIN, 0}, {client.number(), POLLIN, 0}, {server.number(), POLLIN, 0}}};
    if (poll(wait.data(), wait.size(), -1) < 0) return true;
    if (wait[0].revents != 0) return false;
    std::array<char, 4096> block{};
    const bool up = wait[1].revents != 0;
    const ssize_t count =
        recv(up ? client.number() : server.number(), block.data(), block.size(), 0);
    if (count <= 0) return false;
    write(up ? server : client, {block.data(), static_cast<std::size_t>(count)});
    return true;
  }

  static void write(const Descriptor& socket, const std::string& bytes) {
    if (send(socket.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) return;
  }

  Descriptor listener_;
  Descriptor stop_;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;  ///< last: it uses all the others
};

}  // namespace Velantrix::Test
