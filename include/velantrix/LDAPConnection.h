/// @file
/// Connections to LDAP directories (RFC 4511), and the description of a server that they are made
/// from.
///
/// @code
///   LDAPConnection::RefServer plain("ldap://directory.example.com");
///   LDAPConnection::RefServer secure("ldaps://directory.example.com", {.caFile = "/etc/ca.pem"});
///   LDAPConnection connection(secure, false);
///   connection.bind("", "", LDAPConnection::BindSimple);
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Refcounted.h>

#include <memory>
#include <string>

namespace Velantrix {

class LDAPSession;

/// One connection to one server.
///
/// **What it is made of.** libldap encodes the requests and decodes the answers. The socket and TLS
/// are this library's own, and libldap sees an answer only when it has arrived whole and belongs to
/// the request that waits for it. So every wait has an end, a server that hangs up raises no
/// SIGPIPE, and certificates are judged by OpenSSL whatever TLS library libldap was built with.
///
/// **Bounds.** Opening (TCP, StartTLS and TLS together) may take 10 seconds and a bind 10 seconds;
/// a search has the bound that its caller gives. Looking up the server's name comes before that and
/// may take 5 seconds (see `Host`). Inside a verification its limit for the network holds as well.
/// The first connection of a process also has libldap look up the name of the machine that it runs
/// on.
///
/// **What does not count.** Neither `ldap.conf` and `.ldaprc` files nor `LDAP...` environment
/// variables change what a connection does. libldap reads them when it is used for the first time
/// in a process, and every setting that could matter is set again for each connection.
///
/// **What it never does.** It follows no referral, asks nobody for a password and starts no thread.
///
/// **Threads.** Several connections may be used at the same time, each by one thread.
class PKX509_EXPORT LDAPConnection : private NonCopyable {
 public:
  /// How a client makes itself known (RFC 4513, 5).
  enum BindMode : int {
    BindSimple = 0  ///< name and password as they are; both empty is an anonymous bind
  };

  struct Options;
  class Server;
  class RefServer;

  /// @param server     what to connect to; the connection keeps it
  /// @param connectNow true connects at once; false leaves that to the first request
  /// @throws Exception when @p server is empty, or when connecting was asked for and fails: the
  ///         name has no address, nobody answers in time, TLS cannot be had or the peer's
  ///         certificate does not verify
  LDAPConnection(const RefServer& server, bool connectNow);
  /// Tells the server goodbye, without waiting for anything, and closes the connection.
  ~LDAPConnection();

  /// Binds. **The password crosses the network as it is**, so its secrecy is that of the
  /// connection: use `ldaps:` or StartTLS.
  /// @throws Exception when the server refuses it or cannot be reached, and for a @p mode other
  ///         than `BindSimple`
  void bind(const std::string& dn, const std::string& password, BindMode mode);

  /// The open session, for requests; connects when there is none. Borrowed.
  /// @throws Exception as the constructor does
  LDAPSession& session();

 private:
  std::unique_ptr<RefServer> server_;  // a pointer, because the type is not complete yet
  std::unique_ptr<LDAPSession> session_;
};

/// How a server is talked to, beside its URI.
struct LDAPConnection::Options {
  /// Turns TLS on with StartTLS (RFC 4511, 4.14) before anything else is sent. A server that cannot
  /// do it is not used. For "ldap:" only.
  bool startTls = false;
  /// Whether the server's certificate has to verify and name the host of the URI (RFC 6125).
  /// Without it TLS keeps passive listeners out and nobody else.
  bool verifyPeer = true;
  /// PEM file with the authorities that the server's certificate may come from. Empty stands for
  /// the system's: OpenSSL's default directory, as it was built in. It is read when connecting.
  std::string caFile = {};
};

/// The description of a server. It never changes, so any number of connections may share it.
class PKX509_EXPORT LDAPConnection::Server : public RefImpl {
 public:
  /// @param uri "ldap://host[:port]" or "ldaps://host[:port]"; an IPv6 address stands in brackets
  /// @throws Exception when @p uri is anything else or does not go with @p options
  Server(const std::string& uri, const Options& options);
  ~Server() override;

  const std::string& uri() const noexcept { return uri_; }
  /// Name or address; an IPv6 address without brackets.
  const std::string& host() const noexcept { return host_; }
  /// As the URI says, else 389 or 636.
  unsigned short port() const noexcept { return port_; }
  /// Whether TLS comes before the first byte of LDAP.
  bool ldaps() const noexcept { return ldaps_; }
  const Options& options() const noexcept { return options_; }

 private:
  std::string uri_;
  std::string host_;
  unsigned short port_ = 0;
  bool ldaps_ = false;
  Options options_;
};

/// A shared handle to the description of a server.
class PKX509_EXPORT LDAPConnection::RefServer : public Ref<LDAPConnection::Server> {
 public:
  using Ref<LDAPConnection::Server>::Ref;
  RefServer() noexcept = default;
  /// @throws Exception as `Server` does
  explicit RefServer(const std::string& uri, const Options& options = Options());
};

}  // namespace Velantrix
