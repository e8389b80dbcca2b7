#include "Terminal.h"

#include "Status.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <langinfo.h>
#include <locale.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Velantrix::Tool {

namespace {

std::string_view environment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread.
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

// Asked without a change of the process's own locale, which the library and OpenSSL share.
bool localeIsUtf8() {
  const locale_t locale = ::newlocale(LC_CTYPE_MASK, "", locale_t{});
  if (locale == locale_t{}) return false;
  const bool utf8 = std::string_view(::nl_langinfo_l(CODESET, locale)) == "UTF-8";
  ::freelocale(locale);
  return utf8;
}

std::size_t outputWidth() {
  constexpr std::size_t kUnknown = 80;
  constexpr std::size_t kLeast = 40;  // in less no column fits
  constexpr std::size_t kMost = 160;  // in more no eye finds the next line
  winsize size = {};
  if (::isatty(STDOUT_FILENO) != 1 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 ||
      size.ws_col == 0) {
    return kUnknown;
  }
  return std::clamp<std::size_t>(size.ws_col, kLeast, kMost);
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

TextStyle outputStyle(const std::string& colourWhen) {
  return {wantsColour(colourWhen), localeIsUtf8(), outputWidth()};
}

bool errorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

}  // namespace Velantrix::Tool
