// The encoding of OCSP messages, after RFC 6960, 4.1.1 and 4.2.1. What an answer says, and whether it
// may, is no matter here.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "report/RevocationOutcome.h"

#include <velantrix/Certificate.h>

#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509::Revocation {

// The certificate's CertID; null when OpenSSL does not have the digest.
Owned<OCSP_CERTID> ocspIdentifier(const EVP_MD* digest, const RefCertificate& certificate,
                                  const RefCertificate& issuer);

// The DER of an OCSPRequest, with a nonce unless it is empty. Empty when OpenSSL does not have SHA-1.
std::string encodeOCSPRequest(const RefCertificate& certificate, const RefCertificate& issuer,
                              std::string nonce);

// Either an answer, or why there is none.
struct OCSPMessage {
  Owned<OCSP_BASICRESP> basic = {};
  std::optional<Reason> refused = {};
  std::string detail = {};
};

OCSPMessage decodeOCSPResponse(const std::string& body);

// Whether an extension of an answer, or of what it says about a certificate, may not be passed over.
bool isUnknownAndCritical(X509_EXTENSION* extension) noexcept;

}  // namespace Velantrix::Crypto::PKX509::Revocation
