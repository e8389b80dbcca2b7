// The lower part of the help of "pkx509 ocsp".
#pragma once

#include <string>

namespace Velantrix::Tool {

std::string ocspHelp();

}  // namespace Velantrix::Tool
