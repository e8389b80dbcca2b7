// How the library writes its log lines.
//
//   log(kPriorityDebug, "Looking for CRLs of " + issuer.asString());
#pragma once

#include <string_view>

namespace Velantrix {

/// The category of this library's lines.
inline constexpr unsigned int kCategory = 0x4000000;

/// The syslog priorities in use.
inline constexpr int kPriorityNotice = 5;
inline constexpr int kPriorityInfo = 6;
inline constexpr int kPriorityDebug = 7;

/// Writes one line through `Logger::instance(false)`. Control characters, and what hides or
/// reorders text (`Utf8.h`), are written as \HH, so that a text from a stranger stays one line and
/// looks like what it is; the result is cut at 8 KiB. Whatever the logger throws is swallowed, and
/// errno is left as it was: logging changes nothing for its caller. Within a `LogBudget`, a line
/// beyond it is left out.
void log(int priority, std::string_view text) noexcept;

/// The same for the few lines that no budget leaves out: what is wrong with a certificate that was
/// found not valid, whatever a stranger has had logged before.
void logAlways(int priority, std::string_view text) noexcept;

/// Four lines of the library stand, by an old slip that readers of the logs know, in the place of
/// their priority, and an empty text follows. What the log then shows is a number and an empty
/// text; the number is always 0. The text goes nowhere: it is taken so that the caller still says
/// what the line is about. It counts as a line like every other.
void logMisplaced(std::string_view text) noexcept;

}  // namespace Velantrix
