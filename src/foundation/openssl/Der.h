// Reading single objects of DER, and writing the few pieces that are put together by hand.
#pragma once

#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <cstddef>
#include <optional>
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

/// The first octets of an element.
struct DerHeader {
  int tag;
  int tagClass;
  bool constructed;
  const unsigned char* content;  ///< borrowed
  const unsigned char* next;     ///< where the element ends; null when its length is indefinite

  bool is(int universalTag) const noexcept {
    return tag == universalTag && tagClass == V_ASN1_UNIVERSAL;
  }
  /// A SEQUENCE whose end is known.
  bool isWholeSequence() const noexcept {
    return is(V_ASN1_SEQUENCE) && constructed && next != nullptr;
  }
};

/// The header of the element between @p der and @p end. Nothing when none can be read or the
/// element goes on behind the end, which OpenSSL's decoders refuse as well; OpenSSL's errors are
/// then queued.
std::optional<DerHeader> derHeader(const unsigned char* der, const unsigned char* end) noexcept;

/// The object that OpenSSL's @p d2i finds from @p position on, which is moved behind it; null when
/// there is none.
/// @throws std::bad_alloc when there is no memory for it
template <class T>
Owned<T> decodeNext(T* (*d2i)(T**, const unsigned char**, long), const unsigned char*& position,
                    const unsigned char* end) {
  const MemoryCheck memory;
  Owned<T> decoded(d2i(nullptr, &position, static_cast<long>(end - position)));
  if (decoded == nullptr) memory.orThrow();
  return decoded;
}

/// The object that OpenSSL's @p d2i finds in exactly these octets; null when they are anything else
/// or go on behind it.
/// @throws std::bad_alloc when there is no memory for it
template <class T>
Owned<T> decodeWhole(T* (*d2i)(T**, const unsigned char**, long), const unsigned char* der,
                     std::size_t length) {
  if (der == nullptr) return nullptr;
  const unsigned char* position = der;
  Owned<T> decoded = decodeNext(d2i, position, der + length);
  if (position != der + length) decoded.reset();
  return decoded;
}

/// The octets that OpenSSL's @p i2d makes of @p object; none when it cannot.
/// @throws std::bad_alloc when there is no memory for them
template <class T>
std::string encodeWhole(int (*i2d)(const T*, unsigned char**), const T* object) {
  const MemoryCheck memory;
  unsigned char* der = nullptr;
  const int length = i2d(object, &der);
  const OwnedMemory<unsigned char> owner(der);
  if (length <= 0) {
    memory.orThrow();
    return {};
  }
  return std::string(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
}

}  // namespace Velantrix::Crypto
