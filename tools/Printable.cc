#include "Printable.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Utf8.h"

namespace Velantrix::Tool {

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    const std::string_view bytes = text.substr(0, character.length);
    text.remove_prefix(character.length);
    if (character.value && !isUnfitToShow(*character.value)) {
      out += bytes;
    } else {
      appendEscaped(out, bytes);
    }
  }
  return out;
}

}  // namespace Velantrix::Tool
