#include "FactCollector.h"
#include "FactValues.h"
#include "Facts.h"

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

Facts issuingDistributionPoint(const RefIssuingDistributionPoint& point) {
  if (point.empty()) return {};
  Facts fact = pointNameFact(point->distributionPointName());
  fact["onlyUser"] = point->onlyUser();
  fact["onlyCA"] = point->onlyCA();
  fact["onlyAttribute"] = point->onlyAttr();
  fact["indirect"] = point->indirectCRL();
  fact["reasons"] = reasonsFact(point->reasons());
  return fact;
}

}  // namespace

Facts factsOf(const std::string& file, const RefCertificateRevocationList& crl) {
  FactCollector facts(file, "crl");
  facts.add("issuer", [&] { return crl->crlInfo().issuer().asString(); });
  facts.add("crlNumber", [&] { return numberFact(crl->crlNumber()); });
  facts.add("baseCRLNumber", [&] { return numberFact(crl->baseCRLNumber()); });
  facts.add("thisUpdate", [&] { return timeFact(crl->lastUpdate()); });
  facts.add("nextUpdate", [&] { return timeFact(crl->nextUpdate()); });
  facts.add("authorityKeyIdentifier",
            [&] { return keyIdFact(crl->crlInfo().authorityKeyIdentifier()); });
  facts.add("issuingDistributionPoint",
            [&] { return issuingDistributionPoint(crl->issuingDistributionPoint()); });
  facts.add("entries", [&] { return crl->entryCount(); });
  facts.add("unhandledCriticalExtension", [&] { return crl->hasUnhandledCriticalExtension(); });
  return facts.take();
}

}  // namespace Velantrix::Tool
