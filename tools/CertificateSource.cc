#include "CertificateSource.h"

#include "Input.h"

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
  constexpr char kDigits[] = "0123456789abcdef";
  std::string escaped;
  for (const char c : address) {
    if (std::string_view("*()\\\0", 5).find(c) == std::string_view::npos) {
      escaped += c;
    } else {
      const auto octet = static_cast<unsigned char>(c);
      escaped.append({'\\', kDigits[octet >> 4U], kDigits[octet & 0x0fU]});
    }
  }
  return escaped;
}

}  // namespace Velantrix::Tool
