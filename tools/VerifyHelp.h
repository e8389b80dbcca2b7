// What `pkx509 verify --help` says beside the list of options.
#pragma once

#include <string>

namespace Velantrix::Tool {

/// The text below the options: flags, output, exit status, examples.
std::string verifyHelp();

}  // namespace Velantrix::Tool
