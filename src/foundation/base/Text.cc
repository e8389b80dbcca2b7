#include "foundation/base/Text.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Utf8.h"

#include <algorithm>

namespace Velantrix {

namespace {

constexpr bool isPrintableAscii(char c) noexcept { return c >= ' ' && c <= '~'; }

}  // namespace

std::string_view cutText(std::string_view text, std::size_t limit) noexcept {
  if (text.size() <= limit) return text;
  // A character has at most three continuation bytes. More of them is not UTF-8 and is cut
  // anywhere.
  std::size_t end = limit;
  for (int back = 0; back < 4; ++back) {
    if ((static_cast<unsigned char>(text[end]) & 0xc0) != 0x80) return text.substr(0, end);
    if (end == 0) break;
    --end;
  }
  return text.substr(0, limit);
}

std::string escapeControls(std::string_view text, std::size_t limit) {
  // Most texts are nothing but printable ASCII.
  const std::size_t plain = static_cast<std::size_t>(
      std::find_if_not(text.begin(), text.end(), isPrintableAscii) - text.begin());
  if (plain >= std::min(text.size(), limit)) return std::string(text.substr(0, limit));
  std::string out;
  out.reserve(text.size() < limit ? text.size() : limit);
  out = text.substr(0, plain);
  text.remove_prefix(plain);
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    const bool unfit = character.value && isUnfitToShow(*character.value);
    // An escape is three bytes long.
    if (character.length * (unfit ? 3 : 1) > limit - out.size()) break;
    const std::string_view octets = text.substr(0, character.length);
    if (unfit) {
      appendEscaped(out, octets);
    } else {
      out += octets;
    }
    text.remove_prefix(character.length);
  }
  return out;
}

}  // namespace Velantrix
