// What is wrong with a path beside what its verdict says.
#pragma once

#include "report/Objection.h"

#include <velantrix/Time.h>

#include <openssl/x509_vfy.h>

#include <vector>

namespace Velantrix::Crypto::PKX509 {

// How far a path is looked at. Strangers' keys cost what the strangers want.
enum class Recheck {
  // Up to the first wrong signature, below which nobody vouches for a key. Of a path without a trust anchor
  // no key is used: its end, and what has expired, is all that is told.
  kVouchedFor,
  // All of it, for what a callback of the program's has let OpenSSL look at already.
  kEverything
};

// OpenSSL's objections to the path that the context has built, in OpenSSL's order. It is verified with the
// context's parameters, for that time, and without revocation; no source is asked.
std::vector<Objection> objectionsToPath(X509_STORE_CTX* context, int securityLevel,
                                        const Time& checked, Recheck extent);

}  // namespace Velantrix::Crypto::PKX509
