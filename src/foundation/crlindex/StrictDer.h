// Elements of DER, and of nothing that only BER allows.
#pragma once

#include <cstddef>
#include <string_view>

namespace Velantrix::Crypto {

/// One element, borrowed; or none. It is no std::optional, which compilers keep in memory where this one
/// stays in registers: a CRL has millions of them.
struct DerElement {
  unsigned char tag = 0;  ///< class, form and number
  const unsigned char* content = nullptr;
  const unsigned char* end = nullptr;

  explicit operator bool() const noexcept { return content != nullptr; }

  std::size_t size() const noexcept { return static_cast<std::size_t>(end - content); }
  std::string_view text() const noexcept {
    return {reinterpret_cast<const char*>(content), size()};
  }
};

/// The tags of what CRLs are made of.
inline constexpr unsigned char kDerBoolean = 0x01;
inline constexpr unsigned char kDerInteger = 0x02;
inline constexpr unsigned char kDerBitString = 0x03;
inline constexpr unsigned char kDerOctetString = 0x04;
inline constexpr unsigned char kDerObject = 0x06;
inline constexpr unsigned char kDerUTCTime = 0x17;
inline constexpr unsigned char kDerGeneralizedTime = 0x18;
inline constexpr unsigned char kDerSequence = 0x30;
inline constexpr unsigned char kDerContext0 = 0xa0;

/// Reads a length in its long form, as `strictElement` wants it; @p position is behind its first octet and
/// is moved behind the others.
inline bool takeLongLength(std::size_t& length, const unsigned char*& position,
                           const unsigned char* end) noexcept {
  constexpr std::ptrdiff_t kMostOctets = 4;
  const auto octets = static_cast<std::ptrdiff_t>(length & 0x7f);
  if (octets == 0 || octets > kMostOctets || octets > end - position) return false;
  length = 0;
  for (std::ptrdiff_t i = 0; i < octets; ++i) length = length << 8 | *position++;
  return length >= 0x80 && length >> (8 * (octets - 1)) != 0;
}

/// The element at the beginning of what lies between @p position and @p end. None where its tag takes
/// more than one octet, its length is indefinite or not in its shortest form (X.690, 10.1), or it goes
/// on behind the end.
inline DerElement strictElement(const unsigned char* position, const unsigned char* end) noexcept {
  constexpr unsigned char kManyOctets = 0x1f;
  if (end - position < 2 || (*position & kManyOctets) == kManyOctets) return {};
  const unsigned char tag = *position;
  std::size_t length = position[1];
  position += 2;
  if (length >= 0x80 && !takeLongLength(length, position, end)) return {};
  if (length > static_cast<std::size_t>(end - position)) return {};
  return {tag, position, position + length};
}

/// The same, where the element has to be of one kind; @p position is moved behind it.
inline DerElement takeElement(unsigned char tag, const unsigned char*& position,
                              const unsigned char* end) noexcept {
  const DerElement element = strictElement(position, end);
  if (!element || element.tag != tag) return {};
  position = element.end;
  return element;
}

}  // namespace Velantrix::Crypto
