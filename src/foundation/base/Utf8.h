// Reading UTF-8 from strangers, character by character.
//
//   while (!text.empty()) {
//     const Utf8Character character = firstUtf8Character(text);
//     use(character.value, text.substr(0, character.length));
//     text.remove_prefix(character.length);
//   }
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace Velantrix {

struct Utf8Character {
  std::optional<char32_t> value;  ///< nothing when the octets are not UTF-8
  std::size_t length = 1;         ///< of its encoding; 1 when it is none, and 0 at the text's end
};

/// The character that @p text begins with. Strict as RFC 3629 is: no overlong forms, no surrogates,
/// nothing beyond Unicode. Of what is no UTF-8 one octet is taken, so that a reader finds the next
/// character, wherever it begins.
constexpr Utf8Character firstUtf8Character(std::string_view text) noexcept {
  if (text.empty()) return {std::nullopt, 0};
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  std::size_t length = 0;
  char32_t value = 0;
  char32_t least = 0;  // what is below it has a shorter form
  if ((lead & 0xe0U) == 0xc0) {
    length = 2, value = lead & 0x1fU, least = 0x80;
  } else if ((lead & 0xf0U) == 0xe0) {
    length = 3, value = lead & 0x0fU, least = 0x800;
  } else if ((lead & 0xf8U) == 0xf0) {
    length = 4, value = lead & 0x07U, least = 0x10000;
  }
  if (length == 0 || text.size() < length) return {};
  for (std::size_t i = 1; i < length; ++i) {
    const auto octet = static_cast<unsigned char>(text[i]);
    if ((octet & 0xc0U) != 0x80) return {};
    value = value << 6U | (octet & 0x3fU);
  }
  const bool surrogate = value >= 0xd800 && value <= 0xdfff;
  if (value < least || value > 0x10ffff || surrogate) return {};
  return {value, length};
}

/// C0, DEL and C1.
constexpr bool isControlCharacter(char32_t character) noexcept {
  return character < 0x20 || (character >= 0x7f && character <= 0x9f);
}

/// Unicode's Bidi_Control: what makes a reader see the text in another order.
constexpr bool isBidiControl(char32_t character) noexcept {
  return character == 0x061c || character == 0x200e || character == 0x200f ||
         (character >= 0x202a && character <= 0x202e) ||
         (character >= 0x2066 && character <= 0x2069);
}

/// What a reader does not see, or takes for the end of the line: blanks of no width, joiners and
/// other invisible format characters, line and paragraph separators, the byte order mark, tags.
constexpr bool isHiddenCharacter(char32_t character) noexcept {
  return (character >= 0x200b && character <= 0x200d) || character == 0x2028 ||
         character == 0x2029 || (character >= 0x2060 && character <= 0x206f) ||
         character == 0xfeff || (character >= 0xe0000 && character <= 0xe007f);
}

/// What must not reach a log or a terminal as it is, whoever wrote it: text that ends the line,
/// drives the terminal, is not seen, or is seen in another order.
constexpr bool isUnfitToShow(char32_t character) noexcept {
  return isControlCharacter(character) || isBidiControl(character) || isHiddenCharacter(character);
}

}  // namespace Velantrix
