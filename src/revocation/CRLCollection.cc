#include "revocation/CRLCollection.h"

#include "foundation/model/CRLParts.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/Exception.h>

#include <openssl/objects.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

CRLCollection::CRLCollection(const RefCertificate& certificate, RevocationSources& sources,
                             const Time& time, bool useDeltas)
    : certificate_(certificate),
      sources_(sources),
      time_(time),
      useDeltas_(useDeltas),
      scope_(certificate) {}

void CRLCollection::gatherFromPoints() {
  if (std::exchange(fromPoints_, true)) return;
  scope_.forEachPlace([this](const Place& place) { return ask(place, true); });
  if (!useDeltas_) return;
  // 4.2.1.15
  const DistributionPoints freshest(X509_get0_extensions(certificate_), NID_freshest_crl,
                                    "X509::Certificate");
  forEachPlace(freshest, certificate_->issuer(),
               [this](const Place& place) { return ask(place, false); });
}

bool CRLCollection::gatherBehindCaches() {
  if (std::exchange(behindCaches_, true)) return false;
  std::vector<Place> places;
  std::set<std::string> known;
  for (const CRLCandidate& candidate : candidates_) {
    const bool ofCache = candidate.uri && candidate.from.kind == Provenance::Kind::kCache;
    if (!ofCache || candidate.counts() || !known.insert(candidate.uri->asString()).second) continue;
    places.push_back({.uri = candidate.uri});
  }
  for (const Place& place : places) {
    if (!VerificationRun::admitLookup()) {
      cut_ = true;
      break;
    }
    take(sources_.crlsOfHost(*place.uri), place, true);
  }
  return !places.empty();
}

void CRLCollection::gatherByIssuer() {
  if (std::exchange(byIssuer_, true)) return;
  ask({.name = certificate_->issuer()}, false);
  // Also what is known already may be the issuer's list.
  for (CRLCandidate& candidate : candidates_) judge(candidate);
}

void CRLCollection::gatherAnnouncedDeltas() {
  if (!useDeltas_) return;
  for (const CRLCandidate& candidate : candidates_) {  // it grows on the way
    if (candidate.crl->isDeltaCRL() || !candidate.counts()) continue;
    forEachPlace(*candidate.freshest, candidate.crl->crlInfo().issuer(),
                 [this](const Place& place) { return ask(place, false); });
  }
}

// False when there is nothing left to ask with.
bool CRLCollection::ask(const Place& place, bool throughPoint) {
  if (!VerificationRun::mayLookUp()) {
    cut_ = true;
    return false;
  }
  const std::string key =
      place.uri ? place.uri->asString() : (throughPoint ? "at " : "of ") + place.name->asString();
  if (!asked_.insert(key).second) return true;
  take(place.uri ? sources_.crls(*place.uri) : sources_.crls(*place.name), place, throughPoint);
  return true;
}

void CRLCollection::take(const Offers<RefCertificateRevocationList>& offers, const Place& place,
                         bool throughPoint) {
  cut_ = cut_ || offers.cut;
  for (const Offered<RefCertificateRevocationList>& offered : offers.found) {
    const auto known = std::find_if(
        candidates_.begin(), candidates_.end(),
        [&](const CRLCandidate& other) { return isSame(*other.crl.get(), *offered.object.get()); });
    if (known != candidates_.end()) {
      known->throughPoint = known->throughPoint && throughPoint;
      continue;
    }
    candidates_.push_back({.crl = offered.object,
                           .from = offered.from,
                           .throughPoint = throughPoint,
                           .uri = place.uri});
    judge(candidates_.back());
  }
}

// What can be told of a list without its signer.
void CRLCollection::judge(CRLCandidate& candidate) const {
  const CertificateRevocationList& crl = *candidate.crl.get();
  candidate.refused.reset();
  const auto refuse = [&candidate](Reason reason, const std::string& detail) {
    candidate.refused = reason;
    candidate.detail = detail;
  };
  if (crl.isDeltaCRL() && !useDeltas_) {
    return refuse(Reason::kOutOfScope, "delta CRLs are not used");
  }
  // 6.3.3 (b) and (d). A delta CRL's scope is that of the complete CRL, (c).
  using Through = CRLScope::Through;
  const CRLScope::Verdict verdict =
      scope_.of(crl, !byIssuer_               ? Through::kNamed
                     : candidate.throughPoint ? Through::kNamedElseAssumed
                                              : Through::kNamedAndAssumed);
  if (verdict.refused) return refuse(*verdict.refused, verdict.detail);
  candidate.interim_reasons_mask = verdict.interim_reasons_mask;
  if (const char* const rule = crl.brokenRule()) return refuse(Reason::kMalformed, rule);
  // 5.2 and 5.3
  if (crl.hasUnhandledCriticalExtension()) return refuse(Reason::kUnknownCriticalExtension, "");
  if (!isIssuedBy(crl, time_)) return refuse(Reason::kNotYetValid, "");
  try {
    candidate.freshest.emplace(X509_CRL_get0_extensions(headOf(crl)), NID_freshest_crl,
                               "X509::CertificateRevocationList");
  } catch (const Exception& broken) {
    refuse(Reason::kMalformed, broken.stringParameter());
  }
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
