// Signatures of certificates, each verified once for as long as it is in use: intermediates are checked
// again and again, with every message that they come along with.
#pragma once

#include <openssl/x509.h>

#include <cstdint>

namespace Velantrix::Crypto {

/// Whether the certificate is signed by the key in the other one; both are borrowed. What is right is
/// remembered by the SHA-256 of the certificate and of the key: to be asked where somebody vouches for the
/// holder of the key, so that strangers put nothing in the place of what is in use.
/// @throws std::bad_alloc when there is no memory to find out
bool isSignedByHolder(X509* certificate, const X509* holder);

/// How often one was really verified, in all of the process. A snapshot, meant for tests.
std::uint64_t verifiedSignatures() noexcept;

}  // namespace Velantrix::Crypto
