// What `pkx509 simple --help` says beside the list of options.
#pragma once

#include <string>

namespace Velantrix::Tool {

/// The text below the options: output, exit status, examples.
std::string simpleHelp();

}  // namespace Velantrix::Tool
