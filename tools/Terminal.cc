#include "Terminal.h"

#include "Status.h"

#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace Velantrix::Tool {

namespace {

std::string_view environment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread.
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

}  // namespace

bool wantsColour(const std::string& when) {
  if (when == "always") return true;
  if (when == "never") return false;
  if (when != "auto") {
    throw ToolError("--color: \"" + when + "\" is none of auto, always and never");
  }
  return ::isatty(STDOUT_FILENO) == 1 && environment("NO_COLOR").empty() &&
         environment("TERM") != "dumb";
}

bool errorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

}  // namespace Velantrix::Tool
