// `pkx509 verify`.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace Velantrix::Tool {

/// What a subcommand does once the command line has been read. Its result is an exit status.
using Action = std::function<int()>;

/// Adds the subcommand to @p app, which owns it and everything that it keeps. When the subcommand
/// is on the command line, parsing sets @p action.
void addVerifyCommand(CLI::App& app, Action& action);

}  // namespace Velantrix::Tool
