// The noRevAvail certificate extension (RFC 9608): the CA says that it never publishes revocation
// information about the certificate.
#pragma once

#include <velantrix/Certificate.h>

namespace Velantrix::Crypto::PKX509::Revocation {

enum class NoRevocation {
  kAbsent,    // there is no such extension: revocation is checked
  kAsserted,  // no revocation information will be made available
  kMisused  // it stands where it must not: in a CA's certificate, or beside a place where revocation
            // information is to be found
};

NoRevocation noRevocationAvailable(const RefCertificate& certificate);

}  // namespace Velantrix::Crypto::PKX509::Revocation
