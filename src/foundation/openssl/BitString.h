// The named bits of an ASN.1 BIT STRING.
#pragma once

#include <openssl/asn1.h>

namespace Velantrix::Crypto {

/// The first two octets as one number, the first one lowest: how OpenSSL keeps key usages (`KU_*`)
/// and reasons. No standard has names for more bits.
inline unsigned int namedBits(const ASN1_BIT_STRING* bits) noexcept {
  const unsigned char* data = ASN1_STRING_get0_data(bits);
  const int length = ASN1_STRING_length(bits);
  unsigned int named = 0;
  if (length > 0) named = data[0];
  if (length > 1) named |= static_cast<unsigned int>(data[1]) << 8;
  return named;
}

}  // namespace Velantrix::Crypto
