// JSON as the tool prints it.
#pragma once

#include "Value.h"

#include <string>

namespace Velantrix::Tool {

/// ASCII only: what a terminal would act on is escaped, and reads back as what it was. Bytes that
/// are not UTF-8 are replaced by U+FFFD.
std::string jsonText(const Value& value);

}  // namespace Velantrix::Tool
