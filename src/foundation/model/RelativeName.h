// Names relative to the issuer of a CRL.
#pragma once

#include <velantrix/DistinguishedName.h>

#include <string>

namespace Velantrix::Crypto::PKX509 {

/// RFC 5280, 4.2.1.13: a relative name is completed by the name of the CRL's issuer. The empty name
/// when what comes out is no name.
inline DistinguishedName completed(const std::string& relative, const DistinguishedName& issuer) {
  return DistinguishedName(relative + "," + issuer.asString());
}

}  // namespace Velantrix::Crypto::PKX509
