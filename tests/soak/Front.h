// A port in front of a server, through which the server can be made to misbehave.
//
//   Front web(port, serve);
//   web.close();             // connections are refused
//   web.open();
//
// Certificates name fronts, which have the same ports all the time. One thread serves one
// connection after the other, as many as there come, and nothing is kept of them.
#pragma once

#include "support/Descriptor.h"

#include <cstdint>
#include <functional>
#include <thread>

namespace Velantrix::Test::Soak {

class Front {
 public:
  /// Serves a connection, which does not block, until it ends; Peer::Stopped may leave it when
  /// `stop` becomes readable. What else it throws ends the connection.
  using Serve = std::function<void(Descriptor connection, const Descriptor& stop)>;

  /// The port has to be reserved.
  Front(std::uint16_t port, Serve serve);
  ~Front();
  Front(const Front&) = delete;
  Front& operator=(const Front&) = delete;

  void open();
  void close();

 private:
  void run();

  const std::uint16_t port_;
  const Serve serve_;
  Descriptor listener_;
  Descriptor stop_;
  std::thread thread_;  ///< last: it uses all the others
};

}  // namespace Velantrix::Test::Soak
