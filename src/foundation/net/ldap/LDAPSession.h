// One open conversation with an LDAP server: libldap's handle, and the stream under it.
//
//   LDAPSession session(server);
//   ldap_search_ext(session.native(), ..., &id);           // queued, not sent
//   OwnedLDAPMessage message = session.receive(id, budget, deadline);
//
// libldap gets a transport of ours (LDAP_PROTO_EXT) whose two ends are in memory. It writes
// requests into a queue, and it is asked for an answer only when one has arrived whole, so that it
// never waits, never opens a connection by itself and never sees what a server must not send: an
// unsolicited notification without a name, for one, stops the process in an assertion of libldap's.
#pragma once

#include "foundation/base/Deadline.h"
#include "foundation/net/ldap/LDAPStream.h"

#include <velantrix/LDAPConnection.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <ldap.h>
#include <memory>
#include <string>

namespace Velantrix {

struct FreeLDAP {
  void operator()(LDAP* ldap) const noexcept {
    static_cast<void>(ldap_unbind_ext(ldap, nullptr, nullptr));
  }
};
using OwnedLDAP = std::unique_ptr<LDAP, FreeLDAP>;

struct FreeLDAPMessage {
  void operator()(LDAPMessage* message) const noexcept { static_cast<void>(ldap_msgfree(message)); }
};
using OwnedLDAPMessage = std::unique_ptr<LDAPMessage, FreeLDAPMessage>;

/// Text that libldap allocated.
struct FreeLDAPMemory {
  void operator()(void* memory) const noexcept { ldap_memfree(memory); }
};
using OwnedLDAPText = std::unique_ptr<char, FreeLDAPMemory>;

class LDAPSession : private NonCopyable {
 public:
  /// Connects, and has TLS working where the server's description asks for it.
  explicit LDAPSession(const LDAPConnection::RefServer& server);
  ~LDAPSession();

  /// For libldap's functions that send requests. Borrowed.
  /// @throws Exception when the session was closed
  LDAP* native() const;

  /// The next message that answers the request @p id; what is queued is sent first.
  ///
  /// @param budget bytes that may still be read for the request; lowered by what the message took
  /// @return null when the message is longer than the budget. It is not read then
  /// @throws Exception when the deadline comes first, the server closes the connection, or what it
  ///         sends is no answer to the request
  OwnedLDAPMessage receive(int id, std::size_t& budget, const Deadline& deadline);

  /// Marks the session as used up: an answer that was not read to its end stands in the way of the
  /// next one.
  void close() noexcept { closed_ = true; }

  const LDAPConnection::Server& server() const noexcept { return *server_.get(); }

 private:
  struct Transport;  // libldap's side

  LDAPSession(const LDAPConnection::RefServer& server, const Deadline& deadline);

  void connectLDAP();
  void flush(const Deadline& deadline);
  void fill(const Deadline& deadline);
  void startTls(const Deadline& deadline);

  LDAPConnection::RefServer server_;
  LDAPStream stream_;
  std::string out_;        // requests on their way to the server
  std::size_t sent_ = 0;   // how much of them has left
  std::string in_;         // what has arrived
  std::size_t frame_ = 0;  // the length of the message at the start of in_ that libldap may read
  std::size_t read_ = 0;   // how much of it libldap has read
  bool closed_ = false;
  OwnedLDAP ldap_;  // last: it writes a goodbye into out_ when it goes
};

}  // namespace Velantrix
