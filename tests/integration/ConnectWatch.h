// Sees the TCP connections that the program and the library open while the object lives, and leads
// some of them elsewhere.
//
//   ConnectWatch watch;
//   watch.redirect(80, server.port());        // nobody has to be root to listen on port 80
//   client.connect(Uri("https://127.0.0.1/"));
//   EXPECT_EQ(watch.ports(), std::vector<std::uint16_t>{80});
//
// The program's connect() stands in front of the C library's.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

namespace Velantrix::Test {

/// For programs in which one thread opens connections.
class ConnectWatch {
 public:
  ConnectWatch();
  ~ConnectWatch();
  ConnectWatch(const ConnectWatch&) = delete;
  ConnectWatch& operator=(const ConnectWatch&) = delete;

  void redirect(std::uint16_t from, std::uint16_t to) { redirected_[from] = to; }
  /// The ports asked for, in the order of the attempts.
  const std::vector<std::uint16_t>& ports() const { return ports_; }

  /// The port to take instead.
  std::uint16_t see(std::uint16_t port);

 private:
  std::vector<std::uint16_t> ports_;
  std::map<std::uint16_t, std::uint16_t> redirected_;
};

}  // namespace Velantrix::Test
