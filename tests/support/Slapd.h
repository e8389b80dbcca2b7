// A real LDAP server (OpenLDAP's slapd) on loopback, with a directory of its own.
//
//   Slapd directory;
//   directory.add({"o=Test", {"organization"}, {}});
//   directory.add({"cn=Root,o=Test", {"device", "pkiCA"}, {{"cACertificate;binary", der(root)}}});
//   LDAPLookupMethod method({LDAPConnection::RefServer(directory.uri()), "", ""});
//   directory.stop();
//
// It holds names of any kind, serves everybody and checks what it is given as slapd does. Its files
// are in a temporary directory that goes with the object, and so does the process, also when the
// test crashes. Failures throw std::runtime_error.
#pragma once

#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Pki.h"
#include "support/ServerProcess.h"

#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {

class Slapd {
 public:
  struct Options {
    std::string config = {};              ///< lines of slapd.conf for the whole server
    std::string database = {};            ///< and for the database
    const Issued* certificate = nullptr;  ///< turns TLS on; borrowed for the call
  };

  /// One entry. slapd adds what its name says as attributes.
  struct Entry {
    std::string dn;
    std::vector<std::string> classes;
    std::vector<std::pair<std::string, std::string>> attributes;
  };

  Slapd();
  explicit Slapd(const Options& options);

  /// "ldap://127.0.0.1:<port>", and with "ldaps" when there is TLS.
  std::string uri() const;
  std::string tlsURI() const;

  /// Adds the entries in their order.
  void add(const std::vector<Entry>& entries) const;
  void add(const Entry& entry) const { add(std::vector<Entry>{entry}); }

  /// Ends the process; nobody listens on its ports then.
  void stop() { process_.stop(); }

 private:
  void configure(const Options& options) const;

  TempDir work_;
  bool tls_;
  ReservedPort port_;
  ReservedPort tlsPort_;
  ServerProcess process_;
};

}  // namespace Velantrix::Test
