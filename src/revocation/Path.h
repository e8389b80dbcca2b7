// Certification paths, from the certificate in question to its trust anchor.
#pragma once

#include <velantrix/Certificate.h>

#include <algorithm>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

using Path = std::vector<RefCertificate>;

inline bool isSame(const RefCertificate& a, const RefCertificate& b) {
  return a->native() == b->native() || a == b;
}

// What is left of the path from the certificate on; empty when it does not stand there.
inline Path restFrom(const Path& path, const RefCertificate& certificate) {
  return Path(std::find_if(path.begin(), path.end(),
                           [&](const RefCertificate& other) { return isSame(other, certificate); }),
              path.end());
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
