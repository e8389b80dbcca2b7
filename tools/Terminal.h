// What the tool does only where somebody watches.
#pragma once

#include <cstddef>
#include <string>

namespace Velantrix::Tool {

/// How text is laid out for who reads it.
struct TextStyle {
  bool colour = false;
  bool utf8 = false;       ///< boxes may be drawn
  std::size_t width = 80;  ///< in columns
};

/// What help says of the option that `wantsColour` reads.
inline constexpr char kColourHelp[] = "colours the verdict: auto (on a terminal), always or never";

/// Whether output is coloured for "auto", "always" or "never". "auto" is yes when standard output
/// is a terminal, its TERM is not "dumb" and NO_COLOR is not set to anything (no-color.org).
/// @throws ToolError for any other text
bool wantsColour(const std::string& when);

/// For standard output: as wide as the terminal, 80 columns where it is none; boxes where the locale's
/// characters are UTF-8.
/// @throws ToolError as `wantsColour` does
TextStyle outputStyle(const std::string& colourWhen);

/// Whether a counter can be shown on standard error.
bool errorIsTerminal();

}  // namespace Velantrix::Tool
