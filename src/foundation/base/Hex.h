// Octets as upper-case hexadecimal text.
#pragma once

#include <cstddef>
#include <string>

namespace Velantrix {

/// Appends the two digits of @p octet.
inline void appendHex(std::string& text, unsigned char octet) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  text += kDigits[octet >> 4];
  text += kDigits[octet & 0x0f];
}

/// @p length octets, two digits each, with @p separator between them unless that is 0.
inline std::string hexText(const unsigned char* data, std::size_t length, char separator = '\0') {
  std::string text;
  text.reserve(length * 3);
  for (std::size_t i = 0; i < length; ++i) {
    if (i != 0 && separator != '\0') text += separator;
    appendHex(text, data[i]);
  }
  return text;
}

/// The value of a hexadecimal digit of either case, -1 for any other character.
constexpr int hexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace Velantrix
