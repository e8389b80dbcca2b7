#include "revocation/CRLCandidate.h"

namespace Velantrix::Crypto::PKX509::Revocation {

Statement statementOf(const CRLCandidate& candidate) {
  const bool isDelta = candidate.crl->isDeltaCRL();
  return {.kind = isDelta ? Statement::Kind::kDeltaCRL : Statement::Kind::kCRL,
          .from = candidate.from,
          .crl = candidate.crl};
}

bool isIssuedBy(const CertificateRevocationList& crl, const Time& time) {
  return !(time < crl.lastUpdate()->asTime());
}

bool isCurrentAt(const CertificateRevocationList& crl, const Time& time, unsigned int maximumAge) {
  const ASN1::RefGeneralizedTime nextUpdate = crl.nextUpdate();
  if (!nextUpdate.empty()) return !(nextUpdate->asTime() < time);
  const std::int64_t age = time.seconds() - crl.lastUpdate()->asTime().seconds();
  return age <= std::int64_t{maximumAge};
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
