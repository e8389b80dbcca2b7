#include "revocation/CRLSigners.h"

#include "foundation/base/Shortfall.h"
#include "foundation/model/CRLParts.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "revocation/SignatureStrength.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <utility>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

bool holds(const std::vector<RefCertificate>& all, const RefCertificate& wanted) {
  return std::any_of(all.begin(), all.end(),
                     [&](const RefCertificate& one) { return isSame(one, wanted); });
}

}  // namespace

void CRLSigners::authenticate(std::list<CRLCandidate>& candidates) {
  for (CRLCandidate& candidate : candidates) {
    if (candidate.refused || candidate.unauthentic || !candidate.signer.empty()) continue;
    authenticate(candidate);
    const bool forSure = candidate.counts() && candidate.restsOn.empty();
    if (forSure && candidate.uri) {
      sources_.isGenuine(*candidate.uri, candidate.crl, standings_.pathOf(candidate.signer, path_));
    }
  }
}

// All namesakes are tried until the signature fits, those that stand on a path that is known first: what
// the sources have is asked for only where none of these has signed.
void CRLSigners::authenticate(CRLCandidate& candidate) {
  const Shortfall::Watch watch;
  const DistinguishedName& issuer = candidate.crl->crlInfo().issuer();
  const std::vector<RefCertificate> known = onKnownPaths(issuer);
  Standing best;
  if (tryAll(known, candidate, best)) return;
  std::vector<RefCertificate> others;
  for (const Offered<RefCertificate>& offered : sources_.certificates(issuer).found) {
    const RefCertificate& one = offered.object;
    if (one->subject() == issuer && !holds(known, one) && !holds(others, one))
      others.push_back(one);
  }
  if (tryAll(std::move(others), candidate, best) || !candidate.signer.empty()) return;
  candidate.unauthentic = best.refused.value_or(Reason::kSignerUnknown);
  candidate.aboutSigner = best.about;
  // Where somebody was not tried any more, he may have signed it.
  if (best.refused == Reason::kWrongSignature && candidate.uri && !watch.noted()) {
    sources_.isForged(*candidate.uri, candidate.crl);
  }
}

std::vector<RefCertificate> CRLSigners::onKnownPaths(const DistinguishedName& issuer) const {
  std::vector<RefCertificate> found;
  for (const Path* const path : {&path_, &standings_.verified()}) {
    for (const RefCertificate& one : *path) {
      if (one->subject() == issuer && !holds(found, one)) found.push_back(one);
    }
  }
  return found;
}

// True when one has signed it for whom nothing has to be assumed. One for whom something has is kept in
// case that there is no other. `best` is the most telling reason why one has not, with
// the first one that it is true of where that is its path or a wrong signature.
bool CRLSigners::tryAll(std::vector<RefCertificate> signers, CRLCandidate& candidate,
                        Standing& best) {
  const RefAuthorityKeyIdentifier authority = candidate.crl->crlInfo().authorityKeyIdentifier();
  if (!authority.empty()) {  // 5.2.1: it says whose key it is, and proves nothing
    std::stable_partition(signers.begin(), signers.end(), [&](const RefCertificate& signer) {
      return X509_check_akid(signer, authority->native()) == X509_V_OK;
    });
  }
  for (const RefCertificate& signer : signers) {
    if (!VerificationRun::admitStep()) return false;
    Standing standing = tryOne(signer, candidate);
    if (standing.refused) {
      // One whose signature fits says more than a namesake.
      const bool fits = *standing.refused != Reason::kSignerNotValid &&
                        *standing.refused != Reason::kWrongSignature;
      const bool more = best.refused == Reason::kSignerNotValid && standing.refused != best.refused;
      if (!best.refused || fits || more) best = std::move(standing);
      continue;
    }
    if (candidate.signer.empty() || standing.restsOn.empty()) {
      candidate.signer = signer;
      candidate.restsOn = standing.restsOn;
    }
    if (candidate.restsOn.empty()) return true;
  }
  return false;
}

Standing CRLSigners::tryOne(const RefCertificate& signer, const CRLCandidate& candidate) {
  std::optional<VerificationRun> run;
  if (!standings_.isSettled(signer, path_)) {
    run.emplace(nullptr);
    if (run->refusal() != nullptr) {
      Shortfall::note();
      return {.refused = Reason::kTooManyNested};
    }
  }
  // 6.3.3 (f). The key is used only after its own certificate has been verified: a stranger's may have
  // been made to take its time.
  const Path path = standings_.pathOf(signer, path_);
  if (path.empty()) return standings_.withoutPath(signer);
  if (const auto refused = signatureRefused(signer, *candidate.crl.get(), securityLevel_)) {
    return {.refused = refused, .about = aboutAlone(signer)};
  }
  return standings_.of(path, By::kAll);
}

std::optional<Reason> signatureRefused(const RefCertificate& signer,
                                       const CertificateRevocationList& crl, int securityLevel) {
  const ErrorScope errors;
  // 6.3.3 (g), and (h) for a delta CRL
  EVP_PKEY* const key = X509_get0_pubkey(signer);
  const std::optional<bool> signedBy = crl.signatureBy(key);
  if (!signedBy) return Reason::kNotVerified;
  if (!*signedBy) return Reason::kWrongSignature;
  // 6.3.3 (f): if a key usage extension is present, cRLSign is set. OpenSSL has every bit set without one.
  if ((X509_get_key_usage(signer) & KU_CRL_SIGN) == 0) return Reason::kSignerNotAllowed;
  const X509_ALGOR* algorithm = nullptr;
  X509_CRL_get0_signature(headOf(crl), nullptr, &algorithm);
  if (!reachesLevel(securityLevel, algorithm, key)) return Reason::kTooWeak;
  return std::nullopt;
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
