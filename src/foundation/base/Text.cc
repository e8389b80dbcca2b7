#include "foundation/base/Text.h"

#include "foundation/base/Hex.h"

namespace Velantrix {

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
  std::string out;
  out.reserve(text.size() < limit ? text.size() : limit);
  for (const char character : text) {
    const std::size_t room = limit - out.size();
    if (isControl(character)) {
      if (room < 3) break;
      out += '\\';
      appendHex(out, static_cast<unsigned char>(character));
    } else if (room == 0) {
      // One byte too many lets cutText() see whether the character before it is whole.
      out += character;
      return std::string(cutText(out, limit));
    } else {
      out += character;
    }
  }
  return out;
}

}  // namespace Velantrix
