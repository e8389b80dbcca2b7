#include "CertificateSource.h"

#include "Input.h"
#include "foundation/base/Hex.h"

#include <pkx509/HashDirLookup.h>
#include <pkx509/LDAPLookup.h>

#include <string_view>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

CertificateSource directorySource(const std::string& directory) {
  requireHashDirectory("--dir", directory);
  return {directory, RefLookupMethod(new HashDirLookupMethod(directory)), {}};
}

CertificateSource ldapSource(const std::string& uri, const std::string& base) {
  const LDAPLookupMethod::Config config{ldapServer(uri), "", ""};
  return {uri, RefLookupMethod(new LDAPLookupMethod(config)), base, true};
}

std::string addressFor(const CertificateSource& source, const std::string& address) {
  if (!source.filters) return address;
  std::string escaped;
  for (const char c : address) {
    if (std::string_view("*()\\\0", 5).find(c) == std::string_view::npos) {
      escaped += c;
    } else {
      escaped += '\\';
      appendHex(escaped, static_cast<unsigned char>(c));
    }
  }
  return escaped;
}

}  // namespace Velantrix::Tool
