// How wide text is on a terminal, and breaking it where it is too wide.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Tool {

/// Columns of @p text, which is `printable()`.
std::size_t columnsOf(std::string_view text);

/// @p text, which is `printable()`, in lines of at most @p width columns: broken behind a blank, a comma or a
/// slash where there is one, anywhere else where there is none. What does not fit into @p most lines is
/// cut, and ends with @p ellipsis. At least one line.
std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t most,
                                 std::string_view ellipsis);

/// At most @p width columns of @p text; what is cut ends with @p ellipsis.
std::string shortened(std::string_view text, std::size_t width, std::string_view ellipsis);

}  // namespace Velantrix::Tool
