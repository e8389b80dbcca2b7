#include "foundation/base/Fail.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/net/ldap/LDAPRequest.h"
#include "foundation/net/ldap/LDAPSession.h"

#include <velantrix/Exception.h>
#include <velantrix/LDAPConnection.h>
#include <velantrix/Uri.h>

#include <chrono>

namespace Velantrix {

namespace {

constexpr std::chrono::seconds kBindBound{10};
constexpr unsigned short kLDAPPort = 389;
constexpr unsigned short kLDAPSPort = 636;

constexpr Origin kHere{"LDAPConnection", "LDAPConnection"};

// Simple authentication, RFC 4511, 4.2.
class BindRequest : public LDAPRequest {
 public:
  BindRequest(LDAPSession& session, const std::string& dn, const std::string& password)
      : LDAPRequest(session, LDAP_RES_BIND, "LDAPConnection::bind"), dn_(dn), password_(password) {}

 private:
  int transmit(LDAP* ldap, int& id) override {
    berval password{password_.size(), password_.data()};
    return ldap_sasl_bind(ldap, dn_.c_str(), LDAP_SASL_SIMPLE, &password, nullptr, nullptr, &id);
  }

  std::string dn_;
  std::string password_;
};

}  // namespace

LDAPConnection::LDAPConnection(const RefServer& server, bool connectNow)
    : server_(std::make_unique<RefServer>(server)) {
  if (server.get() == nullptr) fail(kHere, "There is no server to connect to.");
  if (connectNow) static_cast<void>(session());
}

LDAPConnection::~LDAPConnection() {
  const NoCancellation untilReturn;
  session_.reset();
}

LDAPSession& LDAPConnection::session() {
  const NoCancellation untilReturn;
  if (session_ == nullptr) {
    try {
      session_ = std::make_unique<LDAPSession>(*server_);
    } catch (Exception& failure) {
      failure.stringParameter((*server_)->uri() + ": " + failure.stringParameter());
      throw;
    }
  }
  return *session_;
}

void LDAPConnection::bind(const std::string& dn, const std::string& password, BindMode mode) {
  if (mode != BindSimple) fail(kHere, "Only simple binds are made.");
  if (dn.find('\0') != std::string::npos) fail(kHere, "A name contains a NUL byte.");
  const NoCancellation untilReturn;
  BindRequest request(session(), dn, password);
  request.send();
  request.wait(kBindBound);
}

LDAPConnection::Server::Server(const std::string& text, const Options& options)
    : uri_(text), options_(options) {
  const Uri uri(text);
  host_ = uri.hostname();
  ldaps_ = uri.scheme() == "ldaps:";
  port_ = uri.port() != 0 ? uri.port() : ldaps_ ? kLDAPSPort : kLDAPPort;
  // What else an LDAP URL may name (RFC 4516: base, filter, bind name) is no part of a server.
  if ((!ldaps_ && uri.scheme() != "ldap:") || host_.empty() || uri.path() != "/" ||
      text.find_first_of("%?#@") != std::string::npos) {
    fail(kHere, "This is not the URI of an LDAP server: " + text);
  }
  if (ldaps_ && options.startTls) {
    fail(kHere, "StartTLS does not go with a URI of TLS: " + text);
  }
}

LDAPConnection::Server::~Server() = default;

LDAPConnection::RefServer::RefServer(const std::string& uri, const Options& options)
    : Ref<LDAPConnection::Server>(new Server(uri, options)) {}

}  // namespace Velantrix
