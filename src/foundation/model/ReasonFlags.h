// The reasons that a distribution point covers.
#pragma once

#include <openssl/asn1.h>

namespace Velantrix::Crypto::PKX509 {

/// OpenSSL's reason bits of a ReasonFlags, cut to those that RFC 5280 defines; all of them for
/// null, since an absent field means that the CRL is about every reason (RFC 5280, 5.2.5).
unsigned int reasonFlags(const ASN1_BIT_STRING* flags) noexcept;

}  // namespace Velantrix::Crypto::PKX509
