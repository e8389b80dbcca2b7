// Who has signed an OCSP answer, and whether it may: RFC 6960, 3.2 (2) to (4), and 4.2.2.2.
#pragma once

#include "revocation/OCSPReading.h"

#include <openssl/ocsp.h>

#include <optional>

namespace Velantrix::Crypto::PKX509::Revocation {

struct OCSPSigner {
  std::optional<Reason> refused = {};
  RefCertificate certificate = {};  // set when nothing is refused
  bool isDelegate = false;          // 4.2.2.2, 3: neither the CA itself nor a configured responder
  AboutSigner about = {};           // whoever the refusal is about; empty where there is nobody
};

OCSPSigner findOCSPSigner(const OCSP_BASICRESP* basic, const RefCertificate& certificate,
                          const RefCertificate& issuer, const RevocationSettings& settings,
                          const Moment& moment);

}  // namespace Velantrix::Crypto::PKX509::Revocation
