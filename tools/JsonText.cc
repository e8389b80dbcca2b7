#include "JsonText.h"

#include <nlohmann/json.hpp>

namespace Velantrix::Tool {

namespace {

using Json = nlohmann::ordered_json;

// NOLINTNEXTLINE(misc-no-recursion): as deep as the tool makes its values
Json toJson(const Value& value) {
  if (const bool* const truth = value.truth()) return *truth;
  if (const std::int64_t* const number = value.number()) return *number;
  if (const std::string* const text = value.text()) return *text;
  if (const Value::Array* const elements = value.array()) {
    Json array = Json::array();
    for (const Value& element : *elements) array.push_back(toJson(element));
    return array;
  }
  if (const Value::Object* const members = value.object()) {
    Json object = Json::object();
    for (const auto& [key, member] : *members) object[key] = toJson(member);
    return object;
  }
  return nullptr;
}

}  // namespace

std::string jsonText(const Value& value) {
  constexpr bool kAsciiOnly = true;
  return toJson(value).dump(2, ' ', kAsciiOnly, Json::error_handler_t::replace) + '\n';
}

}  // namespace Velantrix::Tool
