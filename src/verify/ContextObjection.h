// What OpenSSL is objecting to, while it calls back.
#pragma once

#include "report/Objection.h"

#include <openssl/x509_vfy.h>

namespace Velantrix::Crypto::PKX509 {

// Also when a verification has ended. OpenSSL's own log names the certificate that is verified; here it is
// the one that something is wrong with.
Objection objectionOf(X509_STORE_CTX* context);

}  // namespace Velantrix::Crypto::PKX509
