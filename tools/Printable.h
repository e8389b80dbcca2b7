// Makes text from strangers fit for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace Velantrix::Tool {

/// @p text with everything that could end a line, drive a terminal, hide or reorder what a reader
/// sees as \HH, byte by byte: `isUnfitToShow()` of foundation/base/Utf8.h, and whatever is not
/// UTF-8. A backslash stays as it is, because names come here with
/// escapes of their own.
std::string printable(std::string_view text);

}  // namespace Velantrix::Tool
