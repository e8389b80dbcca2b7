// A server on loopback, in the test's own process, that does what a script says: mostly wrong.
//
//   FaultServer server(Scripts::cutShort("half", 100));
//   ... fetch(server.url("/ca.crl")) ...
//   ASSERT_TRUE(server.waitForRequests(1));
//   EXPECT_EQ(server.requests().at(0), "GET /ca.crl HTTP/1.0\r\n...");
//   EXPECT_EQ(server.connections().size(), 1U);
//
// Each connection has a thread of its own in which the script runs; FaultScripts.h has the usual
// ones, Peer.h says what others can do. The destructor ends them all at once, whatever they wait
// for. What a script refers to has to live longer than the server.
#pragma once

#include "support/Descriptor.h"
#include "support/FaultLog.h"
#include "support/Peer.h"
#include "support/Pki.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Velantrix::Test {

struct FaultServerOptions {
  const Issued* certificate = nullptr;  ///< speaks TLS; borrowed, as the other, for the call
  const Issued* clientCA = nullptr;  ///< and only with clients that have a certificate of this CA
  const char* address = "127.0.0.1";
  std::uint16_t port = 0;  ///< a free one
};

class FaultServer {
 public:
  explicit FaultServer(Script script, const FaultServerOptions& options = {});
  ~FaultServer();
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  std::uint16_t port() const { return port_; }
  /// "http://127.0.0.1:<port><path>", or "https:" when it speaks TLS.
  std::string url(std::string_view path = "/") const;

  /// The requests that scripts read, whole and as they came, in the order of their ends.
  std::vector<std::string> requests() const { return log_.requests(); }
  /// The connections in the order in which they were accepted.
  std::vector<FaultConnection> connections() const { return log_.connections(); }

  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return log_.waitForRequests(count, limit);
  }
  bool waitForConnections(std::size_t count,
                          std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return log_.waitForConnections(count, limit);
  }
  /// Waits for scripts to end, which some do when the client closes.
  bool waitForEnds(std::size_t count,
                   std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return log_.waitForEnds(count, limit);
  }

 private:
  struct FreeContext {
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
  };
  using Context = std::unique_ptr<SSL_CTX, FreeContext>;

  static Context makeContext(const FaultServerOptions& options);
  void accept();
  void serve(Descriptor connection, std::size_t number);

  const Script script_;
  const std::string urlBegin_;
  Descriptor listener_;
  std::uint16_t port_;
  Descriptor stop_;
  Context tls_;
  FaultLog log_;
  std::list<std::thread> connections_;  ///< the acceptor's
  std::thread acceptor_;                ///< last: it uses all the others
};

}  // namespace Velantrix::Test
