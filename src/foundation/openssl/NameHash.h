// The number by which hash directories name a subject or an issuer.
#pragma once

#include <openssl/x509.h>

#include <cstdint>
#include <optional>

namespace Velantrix::Crypto {

/// X509_NAME_hash(): what `openssl x509 -subject_hash` prints. None where there is no SHA-1. The last few of
/// each thread are remembered, since one verification asks for the same names time and again, and the next
/// one does too.
std::optional<std::uint32_t> nameHash(const X509_NAME* name);

}  // namespace Velantrix::Crypto
