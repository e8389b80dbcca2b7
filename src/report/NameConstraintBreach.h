// Which name of a certificate breaks which name constraint of a CA above it.
#pragma once

#include <velantrix/Certificate.h>

#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct NameConstraintBreach {
  std::string name = {};        // "email:anna@example.org"
  std::string constraint = {};  // "permitted email:example.com", "excluded DNS:.example.org"
  RefCertificate authority = {};
};

// OpenSSL tells only that there is one (RFC 5280, 4.2.1.10). The first names and constraints are tried
// one by one, a bounded number of them; none when the breach is not among these. The path is from the
// certificate that was verified upwards, and `depth` is where the certificate stands on it.
std::optional<NameConstraintBreach> findNameConstraintBreach(
    const RefCertificate& certificate, int depth, const std::vector<RefCertificate>& path);

}  // namespace Velantrix::Crypto::PKX509
