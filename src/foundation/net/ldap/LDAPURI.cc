#include "foundation/net/ldap/LDAPURI.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Utf8.h"

#include <algorithm>
#include <array>
#include <ldap.h>
#include <string_view>
#include <utility>

namespace Velantrix {

namespace {

// RFC 4516, 2, and RFC 5280, 4.2.1.13, for one without a host.
constexpr std::string_view kStart = "ldap:///";

bool isLetterOrDigit(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char toLower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), toLower);
  return lower;
}

bool isText(std::string_view text) noexcept {
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    if (!character.value || *character.value == 0) return false;
    text.remove_prefix(character.length);
  }
  return true;
}

// 2.1. `Uri` has seen to it that two digits follow each '%'. What is decoded is UTF-8, and has no NUL,
// with which C would end it.
std::optional<std::string> decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
    i += 2;
  }
  if (!isText(out)) return std::nullopt;
  return out;
}

// Takes what stands in front of the separator, and the separator.
std::string_view takeUpTo(char separator, std::string_view& rest) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

// RFC 4512, 2.5: a type, by its name or its numbers, and options; RFC 4511, 4.5.1.8, has "*" besides.
bool isAttribute(std::string_view text) noexcept {
  if (text == "*") return true;
  return !text.empty() && isLetterOrDigit(text.front()) &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return isLetterOrDigit(c) || c == '-' || c == '.' || c == ';'; });
}

bool readAttributes(std::string_view part, LDAPURI& out) {
  if (part.empty()) return true;
  if (part.ends_with(',')) return false;
  while (!part.empty()) {
    std::optional<std::string> name = decoded(takeUpTo(',', part));
    if (!name || !isAttribute(*name)) return false;
    out.attributes.push_back(*std::move(name));
  }
  return true;
}

bool readScope(std::string_view part, LDAPURI& out) {
  static constexpr std::array<std::pair<std::string_view, int>, 4> kScopes{
      {{"", LDAP_SCOPE_BASE},  // 2: "If scope is omitted, a <scope> of "base" is assumed."
       {"base", LDAP_SCOPE_BASE},
       {"one", LDAP_SCOPE_ONELEVEL},
       {"sub", LDAP_SCOPE_SUBTREE}}};
  const std::string scope = lowerCase(part);
  for (const auto& [name, value] : kScopes) {
    if (scope != name) continue;
    out.scope = value;
    return true;
  }
  return false;
}

// RFC 4515, 3: parentheses within values are escaped, so the one that opens it closes where it ends.
bool isOneFilter(std::string_view text) noexcept {
  std::size_t depth = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '(') ++depth;
    if (text[i] == ')' && depth-- == 0) return false;
    if (depth == 0 && i + 1 < text.size()) return false;
  }
  return depth == 0;
}

bool readFilter(std::string_view part, LDAPURI& out) {
  if (part.empty()) return true;
  std::optional<std::string> filter = decoded(part);
  if (!filter) return false;
  out.filter = filter->starts_with('(') ? *std::move(filter) : "(" + *filter + ")";
  return isOneFilter(out.filter);
}

// 2.2: "If a client does not implement an extension whose criticality is TRUE, it MUST NOT process
// the URL."
bool mayPassOver(std::string_view extensions) {
  if (extensions.ends_with(',')) return false;
  while (!extensions.empty()) {
    const std::string_view extension = takeUpTo(',', extensions);
    if (extension.empty() || extension.starts_with('!')) return false;
  }
  return true;
}

}  // namespace

std::optional<LDAPURI> LDAPURI::withoutHost(const Uri& uri) {
  std::string_view rest = uri.asString();
  if (rest.size() > kMaximumSize || rest.find('#') != std::string_view::npos) return std::nullopt;
  if (lowerCase(rest.substr(0, kStart.size())) != kStart) return std::nullopt;
  rest.remove_prefix(kStart.size());

  LDAPURI out;
  std::optional<std::string> base = decoded(takeUpTo('?', rest));
  if (!base || base->empty()) return std::nullopt;
  out.base = *std::move(base);
  if (!readAttributes(takeUpTo('?', rest), out)) return std::nullopt;
  if (!readScope(takeUpTo('?', rest), out)) return std::nullopt;
  if (!readFilter(takeUpTo('?', rest), out)) return std::nullopt;
  const bool ends = rest.find('?') == std::string_view::npos;
  if (!ends || !mayPassOver(rest)) return std::nullopt;
  return out;
}

}  // namespace Velantrix
