// TLS on a socket that does not block, as the client.
//
//   LDAPTls tls(socket, server);
//   while (const short wants = tls.handshake()) wait(socket, wants);
//   const LDAPTls::Moved moved = tls.read(buffer, sizeof buffer);
#pragma once

#include <velantrix/LDAPConnection.h>
#include <velantrix/NonCopyable.h>

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>

namespace Velantrix {

class LDAPTls : private NonCopyable {
 public:
  /// How many bytes were moved; when it was none, what poll(2) has to wait for.
  struct Moved {
    std::size_t bytes;
    short wants;
  };

  /// Prepares what the description of the server asks for and sends nothing yet.
  /// @param socket borrowed, connected and non-blocking
  /// @throws Exception when the authorities' file cannot be read
  LDAPTls(int socket, const LDAPConnection::Server& server);
  ~LDAPTls();

  /// One step. Returns 0 when the handshake is done, else what poll(2) has to wait for.
  /// @throws Exception when it failed, with OpenSSL's reason
  short handshake();
  /// @throws Exception when the peer has closed the connection or broken the protocol
  Moved read(char* to, std::size_t size);
  Moved write(const char* from, std::size_t size);

 private:
  struct FreeContext {
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
  };
  struct FreeSsl {
    void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
  };

  void trust(const LDAPConnection::Server& server);
  short wants(int result, const char* doing) const;

  int socket_;
  std::unique_ptr<SSL_CTX, FreeContext> context_;
  std::unique_ptr<SSL, FreeSsl> ssl_;
};

}  // namespace Velantrix
