// "pkx509 ocsp": asks an OCSP responder about a certificate.
#pragma once

#include "Command.h"

namespace CLI {
class App;
}

namespace Velantrix::Tool {

/// Adds the subcommand; when the command line asks for it, @p action becomes what it does.
void addOCSPCommand(CLI::App& app, Action& action);

}  // namespace Velantrix::Tool
