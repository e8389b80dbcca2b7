// One verification as the command line describes it.
#pragma once

#include "Report.h"

#include <pkx509/AddressPolicy.h>
#include <pkx509/LDAPLookup.h>
#include <pkx509/RevocationSettings.h>
#include <velantrix/Certificate.h>

#include <chrono>
#include <ctime>
#include <list>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Tool {

struct VerificationSettings {
  std::string caDirectory;
  std::vector<std::string> crlDirectories;
  std::optional<Crypto::PKX509::LDAPLookupMethod::Config> ldap;
  std::list<Crypto::PKX509::RefCertificate> untrusted;
  std::set<std::string> policies;  ///< any when it is empty
  unsigned long setFlags = 0;      ///< beside those that the verifier has by default
  unsigned long clearedFlags = 0;  ///< not set even where OpenSSL has them set by default
  std::optional<std::time_t> at;
  std::chrono::milliseconds deadline = std::chrono::milliseconds::max();  ///< of each verification
  bool classic = false;  ///< with a `Verifier`; otherwise with a `ConformingVerifier`

  /// @name With a `ConformingVerifier`
  /// @{
  Crypto::PKX509::RevocationSettings revocation;
  Crypto::PKX509::AddressPolicy addresses = Crypto::PKX509::AddressPolicy::publicAndPrivate();
  /// @}

  bool openSSLRevocation = false;  ///< with a `Verifier`
};

/// Verifies the first of @p certificates; the others join the untrusted ones, since senders put the
/// certificates above their own behind it. File and log lines of the result are left to the caller.
/// @throws std::exception when no verdict could be reached
Report verify(const VerificationSettings& settings,
              const std::list<Crypto::PKX509::RefCertificate>& certificates);

}  // namespace Velantrix::Tool
