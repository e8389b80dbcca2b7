// What `pkx509 add --help` says beside the list of options.
#pragma once

#include <string>

namespace Velantrix::Tool {

/// The text below the options: output, exit status, examples.
std::string addHelp();

}  // namespace Velantrix::Tool
