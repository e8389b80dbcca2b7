#include "crl/UnsignedCRL.h"

#include "crl/CRLCache.h"
#include "crl/Retriever.h"
#include "crl/StrangersKeys.h"
#include "foundation/base/Shortfall.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/VerificationRun.h"

#include <pkx509/FixedPaths.h>
#include <velantrix/GeneralName.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <list>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

// How many certificates of one name are tried: a stranger may send any number of them, and keys that
// take their time.
constexpr std::size_t kMaximumNamesakes = 16;

// Whether one of the certificates with the name of the issuer may have signed the CRL: one has, or
// not every one of them could be tried.
bool someNamesakeMayHaveSigned(const CertificateRevocationList& list, const RefObjectStore& store) {
  std::list<RefCertificate> namesakes;
  store->findAll(list.crlInfo().issuer(), namesakes);
  if (namesakes.size() > kMaximumNamesakes) return true;
  const ErrorScope errors;
  const Shortfall::Watch
      watch;  // a key that is too large, or one too many, is refused and not tried
  for (const RefCertificate& namesake : namesakes) {
    if (!VerificationRun::admitStep()) return true;
    if (X509_get0_pubkey(namesake) == nullptr ||
        StrangersKeys::signedBy(list, namesake, [&] { return isVouchedFor(namesake); })) {
      return true;
    }
  }
  return watch.noted();
}

// The names by which the CRLs of a distribution point are looked for.
std::list<RefGeneralName> namesOf(const RefCRLDistributionPoint& point) {
  if (point.empty()) return {};
  const RefCRLDistributionPointName name = point->distributionPointName();
  return name.empty() ? point->issuers() : name->fullName();
}

// From the issuer on; of one that does not stand in the chain, the issuer alone.
std::vector<RefCertificate> pathFrom(const RefCertificate& issuer,
                                     const std::vector<RefCertificate>& chain) {
  const auto found = std::find(chain.begin(), chain.end(), issuer);
  if (found == chain.end()) return {issuer};
  return {found, chain.end()};
}

}  // namespace

void takeOutOfCache(const RefCertificateRevocationList& crl, const RefCertificate& certificate,
                    const RefCRLDistributionPoint& point, const RefObjectStore& store) noexcept {
  try {
    if (!isVouchedFor(certificate) || someNamesakeMayHaveSigned(*crl.get(), store)) return;
    for (const RefGeneralName& name : namesOf(point)) {
      if (name.empty() || name->type() != GEN_URI || name->uri().isNull()) continue;
      CRLCache(kCRLCacheDirectory).remove(name->uri(), crl);
    }
  } catch (const std::exception&) {
    // It stays until it runs out.
  }
}

void keepVerified(const RefCertificateRevocationList& crl, const RefCertificate& issuer,
                  const RefCRLDistributionPoint& point,
                  const std::vector<RefCertificate>& chain) noexcept {
  Retriever* const retriever = Retriever::current();
  if (retriever == nullptr || crl.empty() || issuer.empty()) return;
  try {
    const std::vector<RefCertificate> path = pathFrom(issuer, chain);
    for (const RefGeneralName& name : namesOf(point)) {
      if (name.empty() || name->type() != GEN_URI || name->uri().isNull()) continue;
      retriever->verified(name->uri(), crl, path);
    }
  } catch (const std::exception&) {
    // It costs a fetch next time.
  }
}

}  // namespace Velantrix::Crypto::PKX509
