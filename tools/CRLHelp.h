// The lower part of the help of "pkx509 crl".
#pragma once

#include <string>

namespace Velantrix::Tool {

std::string crlHelp();

}  // namespace Velantrix::Tool
