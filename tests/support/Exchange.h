// Says bytes to a server and returns what it answers, for tests of the servers themselves.
//
//   const ReservedPort port;
//   ...
//   EXPECT_EQ(exchangeBytes(port.number(), "GET / HTTP/1.0\r\n\r\n"), "HTTP/1.0 200 OK\r\n...");
//
#pragma once

#include "support/Loopback.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/socket.h>

namespace Velantrix::Test {

/// All bytes until the server closes, or the first `most` of them. Throws std::system_error when
/// the connection is refused (ECONNREFUSED) or reset (ECONNRESET), and when nothing has come for 20
/// seconds (EAGAIN).
inline std::string exchangeBytes(std::uint16_t port, const std::string& request,
                                 const char* address = "127.0.0.1",
                                 std::size_t most = std::string::npos) {
  const Descriptor server = connectTo(port, address);
  const timeval patience{20, 0};
  if (setsockopt(server.number(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
    failWithError("SO_RCVTIMEO", errno);
  }
  if (send(server.number(), request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    failWithError("send", errno);
  }
  std::string all;
  std::array<char, 65536> block{};
  while (all.size() < most) {
    const ssize_t count = recv(server.number(), block.data(), block.size(), 0);
    if (count < 0) failWithError("recv", errno);
    if (count == 0) break;
    all.append(block.data(), static_cast<std::size_t>(count));
  }
  return all;
}

/// The port in "scheme://host:port/path".
inline std::uint16_t portOf(const std::string& url) {
  return static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
}

}  // namespace Velantrix::Test
