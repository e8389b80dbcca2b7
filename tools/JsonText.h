// JSON as the tool prints it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Velantrix::Tool {

/// ASCII only: what a terminal would act on is escaped, and reads back as what it was. Bytes that
/// are not UTF-8 are replaced by U+FFFD.
inline std::string jsonText(const nlohmann::ordered_json& json) {
  constexpr bool kAsciiOnly = true;
  return json.dump(2, ' ', kAsciiOnly, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace Velantrix::Tool
