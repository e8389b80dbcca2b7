// Which certificates may be kept for other verifications.
#pragma once

#include <openssl/x509v3.h>

#include <cstdint>

namespace Velantrix::Crypto::PKX509 {

/// False where OpenSSL could not make sense of all of it: it may have had no memory for that, and notes in
/// the object what it has made out, once and for good. Where that has not been done it is now, so that
/// threads which share the certificate find it done.
inline bool isLasting(X509* certificate) {
  const std::uint32_t doubts = EXFLAG_INVALID | EXFLAG_NO_FINGERPRINT;
  return (X509_get_extension_flags(certificate) & doubts) == 0 &&
         X509_get0_pubkey(certificate) != nullptr;
}

}  // namespace Velantrix::Crypto::PKX509
