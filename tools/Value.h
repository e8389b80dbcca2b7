// What reports are made of: a tree of values, of the kinds that JSON has.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace Velantrix::Tool {

/// A value, null at first. Objects keep the order in which their members were added.
class Value {
 public:
  using Array = std::vector<Value>;
  using Object = std::vector<std::pair<std::string, Value>>;

  // NOLINTBEGIN(google-explicit-constructor): a tree is written down as it will be printed.
  Value() = default;
  Value(bool truth) : content_(truth) {}
  template <std::integral Number>
  Value(Number number) : content_(static_cast<std::int64_t>(number)) {}
  Value(const char* text) : content_(std::string(text)) {}
  Value(std::string_view text) : content_(std::string(text)) {}
  Value(std::string text) : content_(std::move(text)) {}
  Value(Array elements) : content_(std::move(elements)) {}
  Value(Object members) : content_(std::move(members)) {}
  // NOLINTEND(google-explicit-constructor)

  bool isNull() const noexcept { return std::holds_alternative<std::monostate>(content_); }
  /// What the value is, null for every other kind.
  const bool* truth() const noexcept { return std::get_if<bool>(&content_); }
  const std::int64_t* number() const noexcept { return std::get_if<std::int64_t>(&content_); }
  const std::string* text() const noexcept { return std::get_if<std::string>(&content_); }
  const Array* array() const noexcept { return std::get_if<Array>(&content_); }
  const Object* object() const noexcept { return std::get_if<Object>(&content_); }

  /// The member of an object; null when there is none of that name.
  const Value* find(std::string_view key) const noexcept;
  /// The same of an object that has it.
  /// @throws std::out_of_range when it has not
  const Value& at(std::string_view key) const;
  /// The member of an object, added at its end when there is none of that name.
  /// @throws std::bad_variant_access when this is no object
  Value& operator[](std::string_view key);

 private:
  std::variant<std::monostate, bool, std::int64_t, std::string, Array, Object> content_;
};

}  // namespace Velantrix::Tool
