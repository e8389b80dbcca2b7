// Runs a command and collects what it says.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

struct CommandResult {
  int status = -1;  ///< the exit status, or 128 and the number of the signal that ended it
  std::string out;
  std::string err;
};

/// Runs `argv` (no shell; argv[0] is looked up in PATH) with `input` as its standard input and
/// waits for its end. Throws std::runtime_error when it cannot be started, and when it has not
/// ended within `limit`: it is killed then.
CommandResult runCommand(const std::vector<std::string>& argv, std::string_view input = {},
                         std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace Velantrix::Test
