// The bytes between the library and an LDAP server: a TCP connection, plain or with TLS on it.
//
//   LDAPStream stream(server, deadline);
//   while (stream.write(text.data(), text.size()) == 0) stream.wait(deadline);
//
// Only connecting, startTls() and wait() take time, and no longer than their deadline.
#pragma once

#include "foundation/base/Deadline.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/net/ldap/LDAPTls.h"

#include <velantrix/LDAPConnection.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <memory>

namespace Velantrix {

class LDAPStream : private NonCopyable {
 public:
  /// Connects, without TLS. A name with several addresses has them tried in turn, each for its
  /// share of the time that is left.
  /// @throws Exception when none answers in time
  LDAPStream(const LDAPConnection::Server& server, const Deadline& deadline);
  ~LDAPStream();

  /// @throws Exception when it fails, also because the peer's certificate does not verify
  void startTls(const LDAPConnection::Server& server, const Deadline& deadline);

  /// Reads what is there, at most @p size bytes. 0: nothing at the moment, wait() for more.
  /// @throws Exception when the server has closed the connection
  std::size_t read(char* to, std::size_t size);
  /// Writes as much as goes at once. 0: nothing at the moment, wait().
  std::size_t write(const char* from, std::size_t size);
  /// Waits until the last read() or write() that moved nothing is worth another try.
  /// @throws Exception when the deadline comes first
  void wait(const Deadline& deadline) const;

  /// The socket, borrowed.
  int descriptor() const noexcept { return socket_.get(); }

 private:
  FileDescriptor socket_;
  std::unique_ptr<LDAPTls> tls_;
  short wants_ = 0;  // for poll(2)
};

}  // namespace Velantrix
