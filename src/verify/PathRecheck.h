// What is wrong with a path beside what its verdict says.
#pragma once

#include "report/Objection.h"

#include <velantrix/Time.h>

#include <openssl/x509_vfy.h>

#include <vector>

namespace Velantrix::Crypto::PKX509 {

// All of OpenSSL's objections to the path that the context has built, in OpenSSL's order. It is verified
// with the context's parameters, for that time, and without revocation; no source is asked. One without a
// trust anchor is verified as far as it reaches.
std::vector<Objection> objectionsToPath(X509_STORE_CTX* context, int securityLevel,
                                        const Time& checked);

}  // namespace Velantrix::Crypto::PKX509
