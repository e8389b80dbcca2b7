// Making text from strangers fit for one line of a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix {

/// C0 and DEL: what can end a line or drive a terminal.
constexpr bool isControl(char c) noexcept {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

/// The longest start of @p text with at most @p limit bytes that does not end inside a UTF-8
/// character. Borrows from @p text.
std::string_view cutText(std::string_view text, std::size_t limit) noexcept;

/// @p text with every character that is unfit to show (`Utf8.h`) as \HH, octet by octet, and no
/// longer than @p limit bytes: the cut falls neither into such a character's escapes nor into a
/// UTF-8 character. Octets that are not UTF-8 stay as they are.
std::string escapeControls(std::string_view text, std::size_t limit);

}  // namespace Velantrix
