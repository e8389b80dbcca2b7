// How long a CRL that is kept in a directory counts as fresh.
#pragma once

#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>

namespace Velantrix::Crypto::PKX509 {

// When a CRL with that nextUpdate runs out. One that does not say stays for a day.
inline Time expiryOf(const ASN1::RefGeneralizedTime& nextUpdate, const Time& since) {
  constexpr long kDay = 86400;
  return nextUpdate.empty() ? Time::then(since.seconds() + kDay, true) : nextUpdate->asTime();
}

inline Time expiryOf(const RefCertificateRevocationList& crl, const Time& since) {
  return expiryOf(crl->nextUpdate(), since);
}

}  // namespace Velantrix::Crypto::PKX509
