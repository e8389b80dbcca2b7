#include "revocation/CRLCandidate.h"

namespace Velantrix::Crypto::PKX509::Revocation {

Statement statementOf(const CRLCandidate& candidate) {
  const CertificateRevocationList& crl = *candidate.crl.get();
  Statement statement;
  statement.kind = crl.isDeltaCRL() ? Statement::Kind::kDeltaCRL : Statement::Kind::kCRL;
  statement.issuer = crl.crlInfo().issuer().asString();
  if (!crl.crlNumber().isNull()) statement.number = crl.crlNumber().asString();
  statement.thisUpdate = crl.lastUpdate()->asTime();
  if (!crl.nextUpdate().empty()) statement.nextUpdate = crl.nextUpdate()->asTime();
  statement.from = candidate.from;
  return statement;
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
