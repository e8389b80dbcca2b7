// Octets as hexadecimal text, and back.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix {

inline constexpr std::string_view kHexDigits = "0123456789ABCDEF";
inline constexpr std::string_view kLowerHexDigits = "0123456789abcdef";

/// Appends the two digits of @p octet, in upper case.
inline void appendHex(std::string& text, unsigned char octet) {
  text += kHexDigits[octet >> 4];
  text += kHexDigits[octet & 0x0f];
}

/// Appends each octet as \HH.
inline void appendEscaped(std::string& text, std::string_view octets) {
  for (const char octet : octets) {
    text += '\\';
    appendHex(text, static_cast<unsigned char>(octet));
  }
}

/// @p length octets in upper case, two digits each, with @p separator between them; 0 is none.
inline std::string hexText(const unsigned char* data, std::size_t length, char separator = '\0') {
  if (length == 0) return {};
  const std::size_t step = separator == '\0' ? 2 : 3;
  std::string text(length * step - (step - 2), separator);
  for (std::size_t i = 0; i < length; ++i) {
    text[i * step] = kHexDigits[data[i] >> 4];
    text[i * step + 1] = kHexDigits[data[i] & 0x0f];
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
