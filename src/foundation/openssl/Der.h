// Reading single objects of DER, and writing the few pieces that are put together by hand.
#pragma once

#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix::Crypto {

/// Appends a universal type with its length and content.
/// @param tag         a V_ASN1_* number
/// @param constructed true for SEQUENCE and SET
void appendDer(std::string& out, int tag, bool constructed, std::string_view content);

/// The bytes of @p text as OpenSSL's functions want them.
inline const unsigned char* octets(std::string_view text) noexcept {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// The object that OpenSSL's @p d2i finds in exactly these octets; null when they are anything else
/// or go on behind it.
/// @throws std::bad_alloc when there is no memory for it
template <class T>
Owned<T> decodeWhole(T* (*d2i)(T**, const unsigned char**, long), const unsigned char* der,
                     std::size_t length) {
  const unsigned char* end = der;
  if (der == nullptr) return nullptr;
  const MemoryCheck memory;
  Owned<T> decoded(d2i(nullptr, &end, static_cast<long>(length)));
  if (decoded == nullptr) memory.orThrow();
  if (end != der + length) decoded.reset();
  return decoded;
}

}  // namespace Velantrix::Crypto
