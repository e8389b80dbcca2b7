// "pkx509 crl": fetches CRLs by URI, through the cache that verifications use.
#pragma once

#include "Command.h"

namespace CLI {
class App;
}

namespace Velantrix::Tool {

/// Adds the subcommand; when the command line asks for it, @p action becomes what it does.
void addCRLCommand(CLI::App& app, Action& action);

}  // namespace Velantrix::Tool
