// Standard input, output and error, without buffers between the tool and an error.
#pragma once

#include <string_view>

namespace Velantrix::Tool {

/// Call it before anything else opens a file.
///
/// A reader that goes away becomes an error of `writeOutput` instead of a signal. A stream that the
/// caller closed is occupied, so that no other file can get its number, and reports errors.
void prepareStandardStreams();

/// @throws ToolError when not all of it could be written
void writeOutput(std::string_view text);

/// Writes one line to standard error; controls in @p text are escaped. What cannot be written is
/// lost: there is nobody left to tell.
void writeErrorLine(std::string_view text);

/// Writes to standard error as it is: for what drives a terminal. Losses do not matter.
void writeErrorRaw(std::string_view text);

}  // namespace Velantrix::Tool
