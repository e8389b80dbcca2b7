// The library's side of a soak: verifies as a round says, and keeps between rounds what a daemon
// keeps.
#pragma once

#include "soak/Cases.h"
#include "soak/Round.h"
#include "support/Files.h"

#include <pkx509/ObjectStore.h>
#include <pkx509/SimpleVerifier.h>
#include <velantrix/LDAPConnection.h>

#include <string>
#include <vector>

namespace Velantrix::Test::Soak {

class Subject {
 public:
  /// Fills the fixed directories.
  Subject(const Authorities& authorities, const std::vector<Plan>& plans, const Ports& ports);

  /// One verdict, or one of each thread. Throws what is no Velantrix::Exception.
  std::vector<int> verify(const Round& round);

 private:
  using RefObjectStore = Crypto::PKX509::RefObjectStore;

  RefObjectStore storeFor(const Round& round);
  int verifyWith(RefObjectStore store, const Round& round) const;
  int verifySimply(const Round& round);

  TempDir rootOnly_;
  LDAPConnection::RefServer directory_;
  std::vector<RefObjectStore> prepared_;  ///< by untrusted + 2 * directory
  Crypto::PKX509::SimpleVerifier simple_;
  Crypto::PKX509::SimpleVerifier simpleWithDirectory_;
};

}  // namespace Velantrix::Test::Soak
