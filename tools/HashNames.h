// Files that a look-up by hash opens.
#pragma once

#include <cstddef>
#include <string_view>

namespace Velantrix::Tool {

/// Whether @p name is one that `openssl rehash` and the library make: hexadecimal digits, ".", "r" for a
/// CRL, a number.
constexpr bool isHashName(std::string_view name) {
  const std::size_t dot = name.find('.');
  if (dot == 0 || dot == std::string_view::npos) return false;
  if (name.find_first_not_of("0123456789abcdefABCDEF") != dot) return false;
  name.remove_prefix(dot + 1);
  if (name.starts_with('r')) name.remove_prefix(1);
  return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace Velantrix::Tool
