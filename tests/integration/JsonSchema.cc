#include "JsonSchema.h"

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <vector>

namespace Velantrix::Test {

namespace {

using Json = nlohmann::json;

class Validator {
 public:
  explicit Validator(const Json& root) : root_(root) {}

  std::string check(const Json& schema, const Json& value, const std::string& at) const {
    for (const auto& [keyword, argument] : schema.items()) {
      std::string violation = checkKeyword(schema, keyword, argument, value, at);
      if (!violation.empty()) return violation;
    }
    return {};
  }

 private:
  using Check = std::string (Validator::*)(const Json& argument, const Json& value,
                                           const std::string& at) const;

  std::string checkKeyword(const Json& schema, const std::string& keyword, const Json& argument,
                           const Json& value, const std::string& at) const {
    static const std::set<std::string> kAnnotations = {"$schema",  "$id",         "title",
                                                       "$comment", "description", "$defs"};
    static const std::map<std::string, Check> kChecks = {
        {"$ref", &Validator::reference},    {"type", &Validator::type},
        {"enum", &Validator::oneValueOf},   {"const", &Validator::constant},
        {"pattern", &Validator::pattern},   {"minimum", &Validator::minimum},
        {"required", &Validator::required}, {"properties", &Validator::properties},
        {"items", &Validator::items},       {"oneOf", &Validator::oneOf}};
    if (kAnnotations.count(keyword) != 0) return {};
    if (keyword == "additionalProperties") {
      return additional(schema.value("properties", Json::object()), argument, value, at);
    }
    const auto found = kChecks.find(keyword);
    if (found == kChecks.end()) throw std::invalid_argument("unknown keyword: " + keyword);
    return (this->*found->second)(argument, value, at);
  }

  std::string reference(const Json& argument, const Json& value, const std::string& at) const {
    const auto text = argument.get<std::string>();
    if (!text.starts_with("#/")) throw std::invalid_argument("unknown reference: " + text);
    return check(root_.at(Json::json_pointer(text.substr(1))), value, at);
  }

  std::string type(const Json& argument, const Json& value, const std::string& at) const {
    const auto name = argument.get<std::string>();
    const bool fits =
        (name == "object" && value.is_object()) || (name == "array" && value.is_array()) ||
        (name == "string" && value.is_string()) ||
        (name == "integer" && value.is_number_integer()) ||
        (name == "boolean" && value.is_boolean()) || (name == "null" && value.is_null());
    return fits ? "" : at + ": no " + name;
  }

  std::string oneValueOf(const Json& argument, const Json& value, const std::string& at) const {
    const bool known = std::find(argument.begin(), argument.end(), value) != argument.end();
    return known ? "" : at + ": none of " + argument.dump();
  }

  std::string constant(const Json& argument, const Json& value, const std::string& at) const {
    return value == argument ? "" : at + ": not " + argument.dump();
  }

  // The keywords below say nothing about values of other types.
  std::string pattern(const Json& argument, const Json& value, const std::string& at) const {
    if (!value.is_string()) return {};
    // A schema has few, and values are many.
    static std::map<std::string, std::regex> compiled;
    const auto expression = argument.get<std::string>();
    const auto known = compiled.try_emplace(expression, expression).first;
    const bool fits = std::regex_search(value.get<std::string>(), known->second);
    return fits ? "" : at + ": does not match " + argument.dump();
  }

  std::string minimum(const Json& argument, const Json& value, const std::string& at) const {
    return !value.is_number() || value >= argument ? "" : at + ": less than " + argument.dump();
  }

  std::string required(const Json& argument, const Json& value, const std::string& at) const {
    if (!value.is_object()) return {};
    for (const Json& key : argument) {
      if (!value.contains(key.get<std::string>())) return at + ": " + key.dump() + " is missing";
    }
    return {};
  }

  std::string properties(const Json& argument, const Json& value, const std::string& at) const {
    if (!value.is_object()) return {};
    for (const auto& [key, schema] : argument.items()) {
      if (!value.contains(key)) continue;
      std::string violation = check(schema, value.at(key), at + "/" + key);
      if (!violation.empty()) return violation;
    }
    return {};
  }

  std::string additional(const Json& known, const Json& schema, const Json& value,
                         const std::string& at) const {
    if (!value.is_object()) return {};
    for (const auto& [key, member] : value.items()) {
      if (known.contains(key)) continue;
      std::string violation = check(schema, member, at + "/" + key);
      if (!violation.empty()) return violation;
    }
    return {};
  }

  std::string items(const Json& argument, const Json& value, const std::string& at) const {
    if (!value.is_array()) return {};
    for (std::size_t i = 0; i < value.size(); ++i) {
      std::string violation = check(argument, value.at(i), at + "/" + std::to_string(i));
      if (!violation.empty()) return violation;
    }
    return {};
  }

  std::string oneOf(const Json& argument, const Json& value, const std::string& at) const {
    std::vector<std::string> violations;
    for (const Json& schema : argument) violations.push_back(check(schema, value, at));
    if (std::count(violations.begin(), violations.end(), "") == 1) return {};
    std::string all = at + ": not exactly one of";
    for (const std::string& violation : violations) all += " [" + violation + "]";
    return all;
  }

  const Json& root_;
};

}  // namespace

std::string schemaViolation(const Json& schema, const Json& value) {
  return Validator(schema).check(schema, value, "");
}

}  // namespace Velantrix::Test
