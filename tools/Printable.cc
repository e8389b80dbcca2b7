#include "Printable.h"

#include <cstddef>
#include <cstdint>

namespace Velantrix::Tool {

namespace {

constexpr std::uint32_t kNoCharacter = 0xFFFFFFFF;

struct Character {
  std::uint32_t value;  // kNoCharacter when the bytes are not UTF-8
  std::size_t length;
};

// The character that @p text, which is not empty, begins with (RFC 3629).
Character firstCharacter(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  std::size_t length = 0;
  std::uint32_t value = 0;
  std::uint32_t least = 0;  // what is below it has a shorter form
  if (lead >= 0xC2 && lead < 0xE0) {
    length = 2, value = lead & 0x1FU, least = 0x80;
  } else if (lead >= 0xE0 && lead < 0xF0) {
    length = 3, value = lead & 0x0FU, least = 0x800;
  } else if (lead >= 0xF0 && lead < 0xF5) {
    length = 4, value = lead & 0x07U, least = 0x10000;
  }
  if (length == 0 || text.size() < length) return {kNoCharacter, 1};
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0U) != 0x80) return {kNoCharacter, 1};
    value = value << 6U | (byte & 0x3FU);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < least || value > 0x10FFFF || surrogate) return {kNoCharacter, 1};
  return {value, length};
}

bool mustBeEscaped(std::uint32_t value) {
  return value == kNoCharacter || value < 0x20 || (value >= 0x7F && value <= 0x9F) ||
         value == 0x061C || value == 0x200E || value == 0x200F ||
         (value >= 0x2028 && value <= 0x202E) || (value >= 0x2066 && value <= 0x2069);
}

}  // namespace

std::string printable(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Character character = firstCharacter(text);
    const std::string_view bytes = text.substr(0, character.length);
    text.remove_prefix(character.length);
    if (!mustBeEscaped(character.value)) {
      out += bytes;
      continue;
    }
    for (const char c : bytes) {
      const auto byte = static_cast<unsigned char>(c);
      out += '\\';
      out += kHex[byte >> 4U];
      out += kHex[byte & 0x0FU];
    }
  }
  return out;
}

}  // namespace Velantrix::Tool
