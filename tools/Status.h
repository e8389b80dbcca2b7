// How the tool ends, and the error that leads to the worst of it.
#pragma once

#include <stdexcept>

namespace Velantrix::Tool {

/// Exit statuses. Of several certificates `worse()` says which one counts.
enum Status : int {
  kAllValid = 0,
  kNotValid = 1,
  kNotFound = kNotValid,  ///< what was asked for is not there, as grep has it
  kError = 2,      ///< the command line, an input or the output was no good: there is no verdict
  kTempFail = 75,  ///< not valid, and may be valid later; sysexits.h calls it EX_TEMPFAIL
};

/// Ends in one line on standard error and in `kError`. The text names the option or the file.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Velantrix::Tool
