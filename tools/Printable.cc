#include "Printable.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Utf8.h"

namespace Velantrix::Tool {

namespace {

// Beside what a terminal acts on: line and paragraph separators, and what is no character.
bool mustBeEscaped(const Utf8Character& character) {
  if (!character.value) return true;
  const char32_t value = *character.value;
  return isControlCharacter(value) || isBidiControl(value) || value == 0x2028 || value == 0x2029;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    const std::string_view bytes = text.substr(0, character.length);
    text.remove_prefix(character.length);
    if (!mustBeEscaped(character)) {
      out += bytes;
      continue;
    }
    for (const char c : bytes) {
      out += '\\';
      appendHex(out, static_cast<unsigned char>(c));
    }
  }
  return out;
}

}  // namespace Velantrix::Tool
