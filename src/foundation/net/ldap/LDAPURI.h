// What an LDAP URL without a host asks for (RFC 4516), of a server that is known beforehand.
//
//   if (const std::optional<LDAPURI> wanted = LDAPURI::withoutHost(uri)) {
//     LDAPSearch::Parameter parameter(wanted->base);
//     parameter.scope(wanted->scope);
//     parameter.filter(wanted->filter);
//   }
#pragma once

#include <velantrix/Uri.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix {

struct LDAPURI {
  /// A stranger writes it; directories name distribution points in some hundred octets.
  static constexpr std::size_t kMaximumSize = 4096;

  std::string base = {};                     ///< a distinguished name, never empty
  std::vector<std::string> attributes = {};  ///< as they are written; none stands for all
  int scope = 0;            ///< 0 the base alone, 1 what is right under it, 2 the whole subtree
  std::string filter = {};  ///< in parentheses (RFC 4515); empty for none

  /// Nothing for what is not "ldap:///" with a name, is not written as RFC 4516, 2 has it, or has
  /// a critical extension (2.2): no extension is known here. A filter may lack its parentheses.
  static std::optional<LDAPURI> withoutHost(const Uri& uri);
};

}  // namespace Velantrix
