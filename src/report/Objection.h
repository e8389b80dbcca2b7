// What OpenSSL said against a path.
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

namespace Velantrix::Crypto::PKX509 {

struct Objection {
  RefCertificate certificate = {};  // empty where OpenSSL names none
  int depth = -1;
  int code = 0;                           // an X509_V_ERR_* code
  RefCertificate signer = {};             // of that CRL, where it is at fault
  RefCertificateRevocationList crl = {};  // that OpenSSL was checking, in its own revocation check
};

}  // namespace Velantrix::Crypto::PKX509
