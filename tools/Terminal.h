// What the tool does only where somebody watches.
#pragma once

#include <string>

namespace Velantrix::Tool {

/// What help says of the option that `wantsColour` reads.
inline constexpr char kColourHelp[] = "colours the verdict: auto (on a terminal), always or never";

/// Whether output is coloured for "auto", "always" or "never". "auto" is yes when standard output
/// is a terminal, its TERM is not "dumb" and NO_COLOR is not set to anything (no-color.org).
/// @throws ToolError for any other text
bool wantsColour(const std::string& when);

/// Whether a counter can be shown on standard error.
bool errorIsTerminal();

}  // namespace Velantrix::Tool
