// What every subcommand has.
#pragma once

#include <functional>

namespace Velantrix::Tool {

/// What a subcommand does once the command line has been read. Its result is an exit status.
using Action = std::function<int()>;

}  // namespace Velantrix::Tool
