// `pkx509 find`.
#pragma once

#include "Command.h"

namespace CLI {
class App;
}

namespace Velantrix::Tool {

/// Adds the subcommand to @p app, which owns it and everything that it keeps. When the subcommand
/// is on the command line, parsing sets @p action.
void addFindCommand(CLI::App& app, Action& action);

}  // namespace Velantrix::Tool
