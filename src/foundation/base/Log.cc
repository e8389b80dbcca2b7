#include "foundation/base/Log.h"

#include "foundation/base/LogBudget.h"
#include "foundation/base/LogFormat.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/base/Text.h"

#include <velantrix/Logger.h>

#include <cerrno>

namespace Velantrix {

namespace {

void writeLine(int priority, const char* text) {
  const NoCancellation untilReturn;  // the callers below let nothing through, and that would end it
  Logger::instance(false).write(kCategory, 0, "%d\001%s", priority, text);
}

}  // namespace

void log(int priority, std::string_view text) noexcept {
  if (LogBudget::admitLine()) logAlways(priority, text);
}

void logAlways(int priority, std::string_view text) noexcept {
  const int callersErrno = errno;
  try {
    writeLine(priority, escapeControls(text, kMaxLogText).c_str());
  } catch (...) {
    // A line is lost; the verification that it was about goes on.
  }
  errno = callersErrno;
}

void logMisplaced(std::string_view) noexcept {
  if (!LogBudget::admitLine()) return;
  const int callersErrno = errno;
  try {
    writeLine(0, "");
  } catch (...) {
  }
  errno = callersErrno;
}

}  // namespace Velantrix
