// How strong a signature is, as OpenSSL's security levels count it. Of certificates OpenSSL looks at
// it while it verifies a path; of CRLs and OCSP answers it does not.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace Velantrix::Crypto::PKX509::Revocation {

// Whether a signature made by that algorithm, with its parameters, and that key reaches the level (0
// to 5; others count as the nearest). An algorithm that is not known reaches level 0 only.
// Throws std::bad_alloc.
bool reachesLevel(int level, const X509_ALGOR* algorithm, EVP_PKEY* key);

}  // namespace Velantrix::Crypto::PKX509::Revocation
