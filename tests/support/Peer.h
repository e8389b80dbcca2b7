// A client's connection in the hands of a FaultServer's script.
//
//   FaultServer server([](Peer& peer) {
//     if (!peer.readRequest()) return;
//     peer.write("HTTP/1.0 200 OK\r\nContent-Length: 100\r\n\r\nshort");
//     peer.reset();
//   });
//
// Each step takes as long as the client makes it take, and no longer than the server lives: when
// the server stops, the step that waits, or else the next one, throws Peer::Stopped, which a script
// lets pass.
#pragma once

#include "support/Descriptor.h"
#include "support/FaultLog.h"

#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Test {

class Peer {
 public:
  struct Stopped {};

  /// For the server. `socket` does not block; `stop` becomes readable when the server stops; a TLS
  /// handshake is made when there is a context. All but the socket are borrowed.
  Peer(Descriptor socket, SSL_CTX* tls, const Descriptor& stop, FaultLog& log, std::size_t number);

  /// 0 for the first connection that the server accepted, 1 for the next, and so on.
  std::size_t number() const { return number_; }

  /// The next request as it came: the header, and the body that its Content-Length announces. Empty
  /// when the client closes before the end of it; what came is in FaultConnection::received.
  std::optional<std::string> readRequest();

  /// False when the client is gone.
  bool write(std::string_view bytes);
  /// One byte, a pause, the next byte.
  bool writeSlowly(std::string_view bytes, std::chrono::milliseconds interval);
  void pause(std::chrono::milliseconds time);
  /// Reads on and answers nothing.
  void waitForPeerToClose();

  /// The end of what is sent, with TLS's own farewell, and of the connection.
  void close();
  /// The same without the farewell: to a TLS client the connection was cut.
  void cut();
  /// The client's next read or write fails with ECONNRESET.
  void reset();

  /// For scripts that do something lengthy besides.
  bool stopping() const;

 private:
  struct FreeSsl {
    void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
  };

  void handshake(SSL_CTX* context);
  bool receive();
  bool wait(short events, int timeout = -1);
  bool repeatTls(const std::function<int()>& step);

  Descriptor socket_;
  const Descriptor& stop_;
  FaultLog& log_;
  const std::size_t number_;
  std::unique_ptr<SSL, FreeSsl> ssl_;
  bool broken_ = false;  ///< nothing more can be read or written
  std::string buffer_;   ///< received and not yet handed out
};

/// What a FaultServer does with a connection. The connection is closed when it returns.
using Script = std::function<void(Peer&)>;

}  // namespace Velantrix::Test
