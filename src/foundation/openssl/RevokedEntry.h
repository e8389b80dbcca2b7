// Why a CRL lists a certificate.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/x509v3.h>

#include <climits>
#include <cstdint>

namespace Velantrix::Crypto {

// The reason of a revoked entry as OpenSSL keeps it internally: a CRLReason, or -1 when the entry
// has none. A reason that cannot be read, or that an int cannot hold, must not become 0
// (unspecified).
inline int reasonOf(const X509_REVOKED* revoked) {
  const ErrorScope errors;
  int critical = 0;
  const Owned<ASN1_ENUMERATED> reason(static_cast<ASN1_ENUMERATED*>(
      X509_REVOKED_get_ext_d2i(revoked, NID_crl_reason, &critical, nullptr)));
  std::int64_t value = -1;
  if (reason == nullptr || ASN1_ENUMERATED_get_int64(&value, reason.get()) != 1) return -1;
  return value < INT_MIN || value > INT_MAX ? -1 : static_cast<int>(value);
}

}  // namespace Velantrix::Crypto
