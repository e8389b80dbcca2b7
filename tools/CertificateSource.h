// Where certificates are looked for by a mail address or a name.
#pragma once

#include <pkx509/LookupMethod.h>

#include <string>

namespace Velantrix::Tool {

/// A source and what it needs to be asked.
struct CertificateSource {
  std::string name;  ///< what reports and messages call it
  Crypto::PKX509::RefLookupMethod method;
  std::string base;  ///< where a search by mail address begins, for methods that have such a place
  bool filters = false;  ///< a mail address becomes part of a search filter
};

/// @p address as the source wants it: where it becomes part of a filter, what means something there
/// is escaped (RFC 4515, 3).
std::string addressFor(const CertificateSource& source, const std::string& address);

/// A hash directory.
/// @throws ToolError naming --dir when it cannot serve
CertificateSource directorySource(const std::string& directory);

/// An LDAP directory.
/// @throws ToolError naming --ldap when @p uri is none of a server
CertificateSource ldapSource(const std::string& uri, const std::string& base);

}  // namespace Velantrix::Tool
