// What CRLs say together about one certificate, after RFC 5280, 6.3.3. Its clauses stand beside the
// branches that follow them, with its words: a DP is an entry's `distributionPoint`, an IDP the
// issuing distribution point of a CRL, interim_reasons_mask an entry's `reasons`, reasons_mask
// `mask`, cert_status `reason`, and the complete CRL a base.
#include "crl/Retriever.h"
#include "crl/StrangersKeys.h"
#include "crl/UnsignedCRL.h"
#include "foundation/base/Log.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/CRLParts.h"
#include "foundation/model/GeneralNames.h"
#include "foundation/model/RelativeName.h"
#include "foundation/openssl/CRLScore.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/RevokedEntry.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/VerificationRun.h"
#include "report/FindingMaker.h"
#include "report/OutcomeRecord.h"
#include "verify/CheckTime.h"

#include <pkx509/CRLContainer.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/Exception.h>
#include <velantrix/IssuingDistributionPoint.h>
#include <velantrix/StackOfCertificate.h>
#include <velantrix/Time.h>

#include <functional>
#include <memory>
#include <set>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

using Revocation::Reason;

namespace {

// Beside the reasons of a CRL that is handed out while delta CRLs are about. It is no reason bit,
// so OpenSSL's loop never takes the mask for complete and goes on asking.
constexpr unsigned int kDeltaMark = 0x4000;

constexpr int kRemoveFromCRL = 8;  // RFC 5280, 5.3.1

constexpr int kFullName = 0;

const RefCertificateRevocationList& handleOf(const CRLContainer::Entry& entry) {
  return entry.crl->crl;
}

const CertificateRevocationList& crlOf(const CRLContainer::Entry& entry) {
  return *handleOf(entry).operator->();
}

// Where a certificate was found, which is borrowed.
struct CRLOfEntry {
  const CRLContainer::Entry* entry = nullptr;
  ListedEntry revoked = {};
};

// 6.3.3 (i) and (j): looks the entry's certificate up in the entry's CRL. Issuer and serial number
// decide (5.3.3).
void applyEntry(const CRLContainer::Entry& entry, unsigned int& mask, int& reason,
                CRLOfEntry& listed) {
  mask |= entry.reasons;  // 6.3.3 (l)
  // One whose reason is removeFromCRL is found, too.
  if (ListedEntry revoked = entryFor(crlOf(entry), entry.certificate)) {
    reason = reasonOf(revoked.get());
    listed = {&entry, std::move(revoked)};
  }
}

// All of the entries have counted: also those against whose times something was said before.
void noteStatus(const std::list<CRLContainer::Entry>& entries, unsigned int mask, int reason,
                const CRLOfEntry& listed) noexcept {
  OutcomeRecord::note([&](Revocation::Outcome& outcome) {
    std::erase_if(outcome.setAside, [&](const Revocation::SetAside& one) {
      return one.reason == Reason::kExpired || one.reason == Reason::kNotYetValid;
    });
    outcome.uncoveredReasons = kAllReasons & ~mask;
    if (reason != 0) {
      outcome.status = Revocation::Status::kRevoked;
      if (reason > 0) outcome.revoked.reason = reason;
      outcome.revoked.date = timeOf(X509_REVOKED_get0_revocationDate(listed.revoked.get()));
      outcome.decidedBy = {OutcomeRecord::statementOn(handleOf(*listed.entry))};
      return;
    }
    if (mask == kAllReasons) outcome.status = Revocation::Status::kGood;
    for (const CRLContainer::Entry& entry : entries) {
      if (outcome.decidedBy.size() >= OutcomeRecord::kMaximumDecisive) return;
      outcome.decidedBy.push_back(OutcomeRecord::statementOn(handleOf(entry)));
    }
  });
}

// What is broken in a CRL, or in what its issuer is verified with, goes out to the caller, who is to
// know in which one.
template <class Check>
auto blaming(const CRLContainer::Entry& entry, Check&& check) {
  const RefObject candidate = entry.crl;  // outlives the entry's rejection
  try {
    return check();
  } catch (const Exception& malformed) {
    const std::shared_ptr<const LeftBehind> left = OutcomeRecord::take();
    const bool inside = left != nullptr && left->evidence.thrown;
    OutcomeRecord::setAside(inside ? Reason::kSignerNotValid : Reason::kMalformed, candidate->crl,
                            malformed.asString(),
                            {.certificate = inside ? entry.issuer : RefCertificate(),
                             .verification = inside ? left : nullptr});
    throw;
  }
}

// What the entry is rejected for, the first of several.
void noteRejection(const CRLContainer::Entry& entry, Reason reason, std::string_view why) noexcept {
  if (!entry.crl.empty()) OutcomeRecord::setAside(reason, handleOf(entry), why);
}

}  // namespace

CRLContainer::Entry::Entry(const RefCertificate& target, const RefCertificateRevocationList& list,
                           unsigned int coveredReasons)
    : certificate(target), crl(list), reasons(coveredReasons) {}

void CRLContainer::Entry::reject() const {
  score = 0;
  crl = RefObject();
}

unsigned int CRLContainer::Entry::tallyScore(Verifier& owner) const {
  score |= kScoreScope;
  if (certificate->issuedBy(issuer, true)) score |= kScoreIssuerCert;
  // 6.3.3 (b)(1): with a cRLIssuer in the DP, the issuer of the CRL is one of the names there.
  // Without one it ought to be the certificate's issuer, and any will do here: it is meant so,
  // since others may speak for it. CRLs that were not found through a DP were compared before.
  if (!distributionPoint.empty()) {
    const std::shared_ptr<const GENERAL_NAMES> issuers =
        static_cast<const RefCRLDistributionPoint&>(distributionPoint)->nativeIssuers();
    if (countOf(issuers) > 0 &&
        !holdDirectoryName(issuers.get(), crlOf(*this).crlInfo().issuer())) {
      owner.contextError(X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER);
      logMisplaced("The CRL was not issued by an acceptable issuer.");
      noteRejection(*this, Reason::kOtherIssuer,
                    "its issuer is none of those that the distribution point names");
      reject();
      return 0;
    }
  }
  issuingDistributionPointIssuerCheck(owner);
  return score;
}

void CRLContainer::Entry::issuingDistributionPointIssuerCheck(Verifier& /*verifier*/) const {
  // The CRL outlives its rejection here: the steps go on after one, and each writes its line.
  const RefObject candidate = crl;
  const CertificateRevocationList& list = crlOf(*this);
  const DistinguishedName& crlIssuer = list.crlInfo().issuer();
  const RefCRLDistributionPoint& point = distributionPoint;

  const RefIssuingDistributionPoint idp = list.issuingDistributionPoint();
  if (idp.empty()) {
    // 6.3.3 (b)(1): with a cRLIssuer in the DP the CRL has an IDP. That this asserts indirectCRL as
    // well is not asked for.
    if (!point.empty() && countOf(point->nativeIssuers()) > 0) {
      log(kPriorityDebug,
          "Certificate contains CRL Issuers. The CRL must contain an Issuing Distribution Point.");
      noteRejection(*this, Reason::kOutOfScope,
                    "the distribution point names CRL issuers, and it has no issuing distribution "
                    "point");
      reject();
    }
    return;
  }

  // 6.3.3 (d): onlySomeReasons narrows the reasons of the DP (1), or all of them where the DP names
  // none (2). Without it those stay: (3) and (4).
  if (idp->reasons() != kAllReasons) reasons &= idp->reasons();

  const bool isCA = certificate->isCACert();
  const auto rejectAs = [this](std::string_view scope) {
    noteRejection(*this, Reason::kOutOfScope, scope);
    reject();
  };
  if (isCA && idp->onlyUser()) rejectAs("for end entities only");    // 6.3.3 (b)(2)(ii)
  if (!isCA && idp->onlyCA()) rejectAs("for CAs only");              // 6.3.3 (b)(2)(iii)
  if (idp->onlyAttr()) rejectAs("for attribute certificates only");  // 6.3.3 (b)(2)(iv)

  const RefCRLDistributionPointName idpName = idp->distributionPointName();
  if (idpName.empty()) return;
  if (point.empty()) {
    // 6.3.3, its last paragraph: a DP is assumed then, whose name is the certificate's issuer. The
    // names of an issuerAltName do not count.
    if (*idpName.get() != certificate->issuer()) {
      log(kPriorityDebug, "Certificate issuer and CRL distributionPointNames do not match");
      rejectAs("for another distribution point");
    }
    return;
  }
  const RefCRLDistributionPointName pointName = point->distributionPointName();
  // 6.3.3 (b)(2)(i), second half: the names in the IDP would be compared with the cRLIssuer of a DP
  // without a name. That this is the issuer of the CRL is enough here.
  if (pointName.empty()) return;
  // 6.3.3 (b)(2)(i), first half: one of the names in the IDP is one of those in the DP. A relative
  // name is completed by the issuer of the CRL, on both sides.
  bool match = true;
  if (pointName->type() == idpName->type()) {
    match = *pointName.get() == *idpName.get();
  } else if (pointName->type() == kFullName) {
    match = *pointName.get() == completed(idpName->relativeName(), crlIssuer);
  } else {
    match = *idpName.get() == completed(pointName->relativeName(), crlIssuer);
  }
  if (!match) {
    log(kPriorityDebug, "Certificate and CRL distributionPointNames do not match");
    rejectAs("for another distribution point");
  }
}

bool DeltaCrlSorter::operator()(const CRLContainer::Entry& a, const CRLContainer::Entry& b) const {
  return crlOf(a).lastUpdate() < crlOf(b).lastUpdate();
}

CRLContainer::CRLContainer(Verifier& owner) : verifier(owner) {}

CRLContainer::~CRLContainer() = default;

void CRLContainer::add(const Entry& entry) {
  // Also a delta CRL that is rejected below puts the container into its delta mode.
  if (crlOf(entry).isDeltaCRL()) hasDeltaCRL = true;
  blaming(entry, [&] { return entry.tallyScore(verifier); });
  if (!entry.crl.empty()) entries.push_back(entry);
}

RefObject CRLContainer::getCRL() {
  if (entries.empty()) return RefObject();
  if (hasDeltaCRL && !isDeltaCRLChainComplete()) return RefObject();
  const Entry entry = entries.front();
  entries.pop_front();
  collectedReasons |= entry.reasons;
  // While entries remain OpenSSL is not told the accumulated mask, so that it keeps asking.
  unsigned int reasons = entry.reasons;
  if (entries.empty()) {
    reasons = collectedReasons;
  } else if (hasDeltaCRL) {
    reasons |= kDeltaMark;
  }
  verifier.setCurrentCRL(entry.score, entry.issuer, reasons);
  return entry.crl;
}

// 5.2.4 (c): the number of the base is not below the one that the delta CRL builds on. That both
// have one issuer and one scope, 5.2.4 (a) and (b) and 6.3.3 (c), and that the base is the older
// one, 5.2.4 (d), is not asked: each is held against the certificate by itself.
bool CRLContainer::isDeltaCRLChainComplete() const {
  if (entries.empty() || !hasDeltaCRL || chainState != ChainUnknown) {
    return chainState == ChainComplete;
  }
  for (const Entry& delta : entries) {
    if (!crlOf(delta).isDeltaCRL()) continue;
    if (!VerificationRun::admitStep()) return false;
    const ASN1::Integer wanted = crlOf(delta).baseCRLNumber();
    bool found = false;
    for (const Entry& base : entries) {
      found = !crlOf(base).isDeltaCRL() && wanted <= crlOf(base).crlNumber();
      if (found) break;
    }
    if (found) continue;
    chainState = ChainIncomplete;
    OutcomeRecord::setAside(Reason::kNoBase, handleOf(delta));
  }
  if (chainState == ChainIncomplete) {
    log(kPriorityDebug, "Could not find Base CRL");
    return false;
  }
  chainState = ChainComplete;
  return true;
}

int CRLContainer::isRevoked(int& reason) const {
  if (entries.empty() || !VerificationRun::admitStep()) return X509_V_ERR_UNABLE_TO_GET_CRL;
  // 6.3.3 would pass over a CRL that adds no reason (e), and stop at the first one that lists the
  // certificate. Here every entry counts, and the last one that lists it decides.
  unsigned int mask = 0;
  CRLOfEntry listed;
  if (!hasDeltaCRL) {
    for (const Entry& entry : entries) applyEntry(entry, mask, reason, listed);  // 6.3.3 (j)
  } else {
    if (!isDeltaCRLChainComplete()) return X509_V_ERR_UNABLE_TO_GET_CRL;
    std::set<std::reference_wrapper<const Entry>, DeltaCrlSorter> deltas;
    for (const Entry& entry : entries) {
      if (crlOf(entry).isDeltaCRL()) {
        deltas.insert(entry);
      } else {
        applyEntry(entry, mask, reason, listed);  // 6.3.3 (j)
      }
    }
    // 6.3.3 (i): a delta CRL has the last word, the newest one among several.
    for (const Entry& delta : deltas) applyEntry(delta, mask, reason, listed);
    if (reason == kRemoveFromCRL) reason = 0;  // 6.3.3 (k)
  }
  noteStatus(entries, mask, listed.entry == nullptr ? 0 : reason, listed);
  // 6.3.3: the status is undetermined while a reason is not covered. It is so here also when the
  // certificate was found, which refuses it as well.
  if (mask != kAllReasons) return X509_V_ERR_UNABLE_TO_GET_CRL;
  // 6.3.3 (i)(1) and (2): an entry without a reason (-1) revokes as "unspecified" would. One that
  // says unspecified (0) does not revoke: it is meant so.
  return reason != 0 ? X509_V_ERR_CERT_REVOKED : X509_V_OK;
}

void CRLContainer::extendedCRLChecks(const std::list<RefCertificate>& untrusted) {
  for (const Entry& entry : entries) {
    if (!VerificationRun::admitStep()) return;
    if (entry.crl.empty()) continue;
    if (!blaming(entry, [&] { return checkEntry(entry, untrusted); })) return;
  }
}

// False ends all checking.
bool CRLContainer::checkEntry(const Entry& entry, const std::list<RefCertificate>& untrusted) {
  const CertificateRevocationList& list = crlOf(entry);
  // 6.3.3 (f): the issuer of the CRL has a valid path of its own, or is on the one that is being
  // verified. Its trust anchor may be another one of the same store.
  bool issuedOnPath = false;
  for (const RefCertificate& candidate : untrusted) {
    // What costs nothing comes first.
    issuedOnPath = list.issuedBy(candidate, true) && StrangersKeys::signedBy(list, candidate, [&] {
                     return isVouchedFor(candidate);
                   });
    if (issuedOnPath) break;
  }
  // One of them may have signed it whose turn did not come, or did not end.
  if (!issuedOnPath && !VerificationRun::admitStep()) return false;
  if (!issuedOnPath && !validateIssuer(entry, untrusted)) return false;

  const RefCertificate& issuer = entry.issuer;
  // 6.3.3 (f): with a key usage extension, cRLSign is set. Without one every bit reads as set.
  const auto setAside = [&](Reason reason, std::string_view why = {}) {
    OutcomeRecord::setAside(reason, handleOf(entry), why, {.certificate = issuer});
  };
  if ((issuer->keyUsage() & KU_CRL_SIGN) == 0) {
    setAside(Reason::kSignerNotAllowed);
    verifier.contextError(X509_V_ERR_KEYUSAGE_NO_CRL_SIGN);
    return false;
  }
  {
    const ErrorScope errors;
    const Shortfall::Watch watch;
    if (X509_get0_pubkey(issuer) == nullptr) {
      setAside(Reason::kSignerNotValid, "its key cannot be read");
      verifier.contextError(X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY);
      return false;
    }
    // 6.3.3 (g), and (h) for a delta CRL. An issuer that is not on the path has just been verified.
    if (!StrangersKeys::signedBy(list, issuer,
                                 [&] { return !issuedOnPath || isVouchedFor(issuer); })) {
      // Nothing is known of a signature that was given up.
      if (!VerificationRun::admitStep()) {
        setAside(Reason::kNotVerified);
        return false;
      }
      setAside(Reason::kWrongSignature,
               watch.noted() ? "not verified: nobody vouches for its signer's key" : "");
      verifier.contextError(X509_V_ERR_CRL_SIGNATURE_FAILURE);
      // What is not signed on the path has an issuer here that a trust anchor vouches for: its own
      // verification has just ended valid.
      if (!issuedOnPath) {
        takeOutOfCache(entry.crl->crl, entry.certificate, entry.distributionPoint,
                       verifier.objectStore());
      }
      return false;
    }
  }
  // An issuer on the path has not been verified before its signatures are.
  if (Retriever::current() != nullptr && (!issuedOnPath || isVouchedFor(issuer))) {
    keepVerified(entry.crl->crl, issuer, entry.distributionPoint,
                 {untrusted.begin(), untrusted.end()});
  }
  // 5.2: a CRL with a critical extension that is not understood decides nothing.
  if (list.hasUnhandledCriticalExtension()) {
    setAside(Reason::kUnknownCriticalExtension);
    verifier.contextError(X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION);
    return false;
  }

  // The two findings below are recorded and do not end the checks: a later entry whose issuer
  // validates overwrites them. It is meant so.
  const Time time = checkTime(verifier);
  const ASN1::RefGeneralizedTime nextUpdate = list.nextUpdate();
  // 6.3.3 (a)(1) and 5.1.2.5: the next update is still to come. As soon as there is a delta CRL,
  // what has expired counts all the same: it is meant so.
  if (!nextUpdate.empty() && time > nextUpdate->asTime() && !hasDeltaCRL) {
    setAside(Reason::kExpired);
    verifier.contextError(X509_V_ERR_CRL_HAS_EXPIRED);
  }
  const ASN1::RefGeneralizedTime lastUpdate = list.lastUpdate();
  // 5.1.2.4: the CRL has been issued by then.
  if (!lastUpdate.empty() && time < lastUpdate->asTime()) {
    setAside(Reason::kNotYetValid);
    verifier.contextError(X509_V_ERR_CRL_NOT_YET_VALID);
  }
  return true;
}

// Verifies the issuer of a CRL that no certificate of the path issued.
bool CRLContainer::validateIssuer(const Entry& entry, const std::list<RefCertificate>& untrusted) {
  Verifier nested(verifier.objectStore()->clone(), entry.issuer, RefStackOfCertificate(untrusted),
                  false);
  takeOverTime(verifier, nested);
  OutcomeRecord::take();  // of another one before
  const int verdict = nested.isValid();
  if (verdict != X509_V_OK) {
    const std::shared_ptr<const LeftBehind> left = OutcomeRecord::take();
    OutcomeRecord::setAside(reasonAgainstSigner(left.get()), handleOf(entry), {},
                            {.certificate = entry.issuer, .verification = left});
  }
  verifier.contextError(verdict);
  return verdict == X509_V_OK;
}

void CRLContainer::clear() {
  hasDeltaCRL = false;
  chainState = ChainUnknown;
  collectedReasons = 0;
  entries.clear();
}

}  // namespace Velantrix::Crypto::PKX509
