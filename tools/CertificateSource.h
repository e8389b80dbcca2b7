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
};

/// A hash directory.
/// @throws ToolError naming --dir when it cannot serve
CertificateSource directorySource(const std::string& directory);

}  // namespace Velantrix::Tool
