// Makes text from strangers fit for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace Velantrix::Tool {

/// @p text with everything that could end a line, drive a terminal or reorder what a reader sees as
/// \HH, byte by byte: C0, DEL and C1 controls, line and paragraph separators, bidirectional
/// controls, and whatever is not UTF-8. A backslash stays as it is, because names come here with
/// escapes of their own.
std::string printable(std::string_view text);

}  // namespace Velantrix::Tool
