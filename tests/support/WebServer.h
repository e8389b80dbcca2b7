// A real web server (nginx) that serves a directory on loopback.
//
//   WebServer server({.certificate = &tls, .clientCA = &root});
//   writeFile(server.root() / "ca.crl", der(crl.get()));
//   ... fetch(server.url("/ca.crl")), fetch(server.tlsUrl("/ca.crl")) ...
//   ASSERT_TRUE(server.waitForRequests(2));
//   EXPECT_EQ(server.requests().front().line, "GET /ca.crl HTTP/1.0");
//
// One process, started alike by root and by an ordinary user; all of its files are in a temporary
// directory. Stopped and started again it keeps its ports, which nobody gets in between. For bytes
// that nginx does not tell apart, and for faults, there is FaultServer.
#pragma once

#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Pki.h"
#include "support/ServerProcess.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

struct WebServerOptions {
  const Issued* certificate = nullptr;  ///< serves https too; borrowed, as the others, for the call
  const Issued* clientCA = nullptr;  ///< https answers only clients with a certificate of this CA
  /// Names of which each has a server of its own on the port of `url()`, with a directory of its name
  /// in the root.
  std::vector<std::string> virtualHosts = {};
  std::string directives = {};  ///< more, for the server of `url()` (ngx_http_core_module)
  std::string more = {};        ///< of nginx's block "http", servers of other kinds for one
};

/// A request as nginx logged it when it had answered. A header that was absent is "-"; control
/// characters, quotes and backslashes stand as "\xXX".
struct WebRequest {
  std::string line;  ///< "GET /ca.crl HTTP/1.0"
  int status = 0;    ///< what was answered
  std::string userAgent;
  std::string pragma;
  std::string accept;
  std::string connection;
  std::string host;
  std::string clientSubject;  ///< of the TLS client's certificate, as in RFC 2253
};

class WebServer {
 public:
  explicit WebServer(const WebServerOptions& options = {});

  /// The directory served. What is put into it is there at once.
  std::filesystem::path root() const { return directory_ / "root"; }

  /// "http://127.0.0.1:<port><path>"
  std::string url(std::string_view path) const;
  /// "http://[::1]:<port><path>"; throws std::runtime_error when the machine has no ::1.
  std::string ipv6Url(std::string_view path) const;
  /// "https://127.0.0.1:<port><path>"; throws std::runtime_error when there is no certificate.
  std::string tlsUrl(std::string_view path) const;

  /// All requests since the object was made, in the order of their answers' ends.
  std::vector<WebRequest> requests() const;
  /// How many of them named the path, whatever the method.
  std::size_t requestsFor(std::string_view path) const;
  /// A request is logged after its answer was sent: wait for it before looking.
  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

  /// From here on connections are refused.
  void stop() { process_.stop(); }
  /// Throws std::runtime_error with what nginx says when it does not start.
  void start() { process_.start(); }

 private:
  std::string configuration(const WebServerOptions& options) const;

  TempDir directory_;
  ReservedPort port_;
  std::optional<ReservedPort> ipv6Port_;
  std::optional<ReservedPort> tlsPort_;
  ServerProcess process_;
};

}  // namespace Velantrix::Test
