// Paths of those who sign what is said about revocation: issuers of CRLs, and OCSP responders.
#pragma once

#include "report/Objection.h"

#include <velantrix/Certificate.h>
#include <velantrix/NonCopyable.h>

#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

class SignerPaths : private NonCopyable {
 public:
  virtual ~SignerPaths() = default;

  // The path of the certificate, from itself to the trust anchor of the path that is being verified
  // (RFC 5280, 6.3.3 (f): the same, by name and key). It is valid at the check time but for
  // revocation, which is not looked at. Empty when there is none.
  virtual std::vector<RefCertificate> pathOf(const RefCertificate& signer) = 0;
  // What OpenSSL objected to when the last one that was asked for was not found; none where it said
  // nothing.
  virtual std::optional<Objection> objection() const { return std::nullopt; }
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
