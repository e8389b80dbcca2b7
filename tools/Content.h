// The bytes of what the command line names.
#pragma once

#include <string>

namespace Velantrix::Tool {

/// What stands for standard input among file names.
inline constexpr char kStandardInput[] = "-";

/// What messages call @p file.
std::string nameOf(const std::string& file);

/// Everything that a regular file, a FIFO or standard input has. Anything else is refused: a
/// directory has no content and a device may have no end.
/// @throws ToolError, naming @p file, when it cannot be read or is larger than the library reads
std::string contentOf(const std::string& file);

}  // namespace Velantrix::Tool
