// What the writer of a log line and the default logger agree on.
#pragma once

#include <cstddef>

namespace Velantrix {

/// The longest text of a line, in bytes.
inline constexpr std::size_t kMaxLogText = std::size_t{8} * 1024;

/// Stands between the priority and the text.
inline constexpr char kPriorityEnd = '\x01';

}  // namespace Velantrix
