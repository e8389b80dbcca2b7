// Whether a key has signed a CRL, of whatever size.
#pragma once

#include <openssl/types.h>

#include <optional>

namespace Velantrix::Crypto {
class CompactCRL;
}

namespace Velantrix::Crypto::PKX509 {

// What X509_CRL_verify() says, true for its 1. One that is longer than `kSignaturePiece` is hashed in pieces,
// before each of which the verification of this thread is asked whether there is to be another step; none
// where there is not. Both are borrowed, and not null.
std::optional<bool> isCRLSignedBy(X509_CRL* crl, EVP_PKEY* key);
// The same for one in its compact form, of which nothing is copied.
std::optional<bool> isCRLSignedBy(const CompactCRL& crl, EVP_PKEY* key);

}  // namespace Velantrix::Crypto::PKX509
