// What the single responses of an OCSP answer say about one certificate: RFC 6960, 3.2 (1), (5), (6),
// 4.2.1 and 4.2.2.1.
#pragma once

#include "revocation/OCSPReading.h"

#include <openssl/ocsp.h>

namespace Velantrix::Crypto::PKX509::Revocation {

// Sets the status, the times and what is revoked, or why nothing of it counts. Who has signed the
// answer is no matter here.
void readSingleResponses(OCSP_BASICRESP* basic, const RefCertificate& certificate,
                         const RefCertificate& issuer, const RevocationSettings& settings,
                         const Moment& moment, OCSPReading& reading);

}  // namespace Velantrix::Crypto::PKX509::Revocation
