#include "Value.h"

#include <algorithm>
#include <stdexcept>

namespace Velantrix::Tool {

namespace {

// Objects have a dozen members.
template <class Members>
auto memberOf(Members& members, std::string_view key) {
  return std::find_if(members.begin(), members.end(),
                      [key](const auto& member) { return member.first == key; });
}

}  // namespace

const Value* Value::find(std::string_view key) const noexcept {
  const Object* const members = object();
  if (members == nullptr) return nullptr;
  const auto found = memberOf(*members, key);
  return found == members->end() ? nullptr : &found->second;
}

const Value& Value::at(std::string_view key) const {
  const Value* const found = find(key);
  if (found == nullptr) throw std::out_of_range("there is no " + std::string(key));
  return *found;
}

Value& Value::operator[](std::string_view key) {
  Object& members = std::get<Object>(content_);
  const auto found = memberOf(members, key);
  if (found != members.end()) return found->second;
  return members.emplace_back(std::string(key), Value()).second;
}

}  // namespace Velantrix::Tool
