// The verifier's own revocation logic: which certificates of a chain are checked, OCSP before CRLs,
// and where CRLs are looked for.
#include "foundation/base/Log.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/DistributionPoints.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/run/VerificationRun.h"
#include "report/OutcomeRecord.h"
#include "store/AskMethod.h"
#include "store/LookupMemory.h"
#include "verify/Examined.h"
#include "verify/FailureText.h"
#include "verify/VerifierState.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/OCSP.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/GeneralName.h>

#include <openssl/x509v3.h>

#include <cstddef>
#include <iterator>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

const ASN1::RefObjectIdentifier& authorityInformationAccess() {
  static const ASN1::RefObjectIdentifier oid("1.3.6.1.5.5.7.1.1");
  return oid;
}

// The subject where an override of checkRevocationStatus() asks about the certificates of the chain
// in its own way.
void beSubject(X509* target, VouchedChain& chain, std::optional<ChainSubject>& subject) {
  if (VerificationRun::current() == nullptr || ConnectionSubject::current() != nullptr) return;
  if (chain.contains(target)) subject.emplace(target, chain);
}

// How many are tried for a certificate that no trust anchor vouches for.
constexpr std::size_t kMaximumStrangersResponders = 8;

// Where the very certificate stands in the chain that OpenSSL built; -1 when it does not.
int placeIn(const X509_STORE_CTX* context, const X509* certificate) {
  const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    if (sk_X509_value(chain, i) == certificate) return i;
  }
  return -1;
}

std::string noIssuerText(const RefCertificateRevocationList& crl) {
  return "Could not find issuing certificate for CRL issued by " +
         crl->crlInfo().issuer().asString();
}

}  // namespace

int Verifier::checkChain() {
  X509_STORE_CTX* const context = state_->context.get();
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(context));
  if ((flags & X509_V_FLAG_CRL_CHECK) == 0) return 1;
  const STACK_OF(X509)* const built = X509_STORE_CTX_get0_chain(context);
  int last = 0;
  if ((flags & X509_V_FLAG_CRL_CHECK_ALL) != 0) {
    last = sk_X509_num(built) - 1;
  } else if (state_->parent != nullptr || X509_STORE_CTX_get0_parent_ctx(context) != nullptr) {
    return 1;  // on the path of a CRL issuer only the flag for all certificates asks for more
  }
  VerificationRun* const run = VerificationRun::current();
  std::list<RefCertificate> chain;
  for (int i = 0; i <= last; ++i) {
    X509_STORE_CTX_set_error_depth(context, i);
    if (run != nullptr) run->know(sk_X509_value(built, i));
    chain.push_back(CertificateFactory()(sk_X509_value(built, i), false));
  }
  const int result = checkRevocationStatus(chain);
  state_->noteOverride(result != 0);
  return result;
}

int Verifier::checkRevocationStatus(const std::list<RefCertificate>& chain) {
  const int result = checkAll(chain);
  state_->decidedByItself = state_->decidedByItself.value_or(true) && result != 0;
  return result;
}

int Verifier::checkAll(const std::list<RefCertificate>& chain) {
  // Set once for the whole chain: after one good OCSP answer no later certificate is checked
  // against CRLs. It is meant so.
  bool needCrlCheck = true;
  // Mostly the chain that OpenSSL built, or its lower end. Another list is its maker's.
  std::optional<VouchedChain> own;
  if (!state_->vouchedChain().beginsWith(chain)) own.emplace(chain, state_->context.get());
  int depth = -1;
  for (auto position = chain.begin(); position != chain.end(); ++position) {
    ++depth;
    const RefCertificate& current = *position;
    if (std::next(position) == chain.end() && current->isSelfSigned()) continue;

    const ChainSubject subject(current, own.has_value() ? *own : state_->vouchedChain());
    // A callback of the caller's may have let something pass and left its code.
    const int before = contextError();
    const int place = own.has_value() ? placeIn(state_->context.get(), current) : depth;
    const bool told = place >= 0 && VerificationRun::current() != nullptr;
    Examined examined(told ? &state_->evidence : nullptr, place, current);
    checkOne(current, chain, needCrlCheck);
    const int code = contextError();
    examined.end(code == before ? X509_V_OK : code);
    if (code != X509_V_OK) {
      logFailure(current, code);
      X509_STORE_CTX_set_error_depth(state_->context.get(), depth);
      return 0;
    }
  }
  return 1;
}

// What it comes to is the context's error.
void Verifier::checkOne(const RefCertificate& current, const std::list<RefCertificate>& chain,
                        bool& needCrlCheck) {
  int answer = OCSP::kNoAnswer;
  const RefAuthorityInformationAccess aia(current->find(authorityInformationAccess()));
  if (!aia.empty()) {
    answer = checkOCSP(current, aia, chain);
    if (answer == OCSP::kGood) {
      contextError(X509_V_OK);
      needCrlCheck = false;
      return;
    }
    if (answer == OCSP::kRevoked) {
      contextError(X509_V_ERR_CERT_REVOKED);
    } else if (answer != OCSP::kNoAnswer) {
      log(kPriorityDebug,
          "Verifier::checkRevocationStatus: Unhandled return value from checkOCSP: " +
              std::to_string(answer));
    }
  }
  if (answer == OCSP::kRevoked || !needCrlCheck) return;
  CRLContainer container(*this);
  getCRLs(current, container);
  container.extendedCRLChecks(chain);
  if (contextError() == X509_V_OK) {
    int reason = 0;
    contextError(container.isRevoked(reason));
  }
}

int Verifier::checkOCSP(const RefCertificate& target, const RefAuthorityInformationAccess& aia,
                        const std::list<RefCertificate>& chain) {
  std::optional<ChainSubject> subject;
  beSubject(target, state_->vouchedChain(), subject);
  // A responder that keeps one waiting must not cost the CRLs that would be asked after it.
  const NetworkBudget::HalfOfTime half;
  std::size_t position = 0;
  std::size_t named = 0;
  for (RefGeneralName location = aia->nextOCSPGeneralName(position); !location.empty();
       location = aia->nextOCSPGeneralName(position)) {
    if (!VerificationRun::admitStep()) break;
    if (location->type() != GEN_URI) continue;
    if (++named > kMaximumStrangersResponders && isForStranger()) {
      Shortfall::note();
      log(kPriorityInfo,
          "Verifier: too many OCSP responders of a certificate that no trust anchor vouches for");
      break;
    }
    OCSP::Client client(*this, chain);
    if (client.connect(location->uri())) return client.isRevoked(target);
  }
  return OCSP::kNoAnswer;
}

RefCertificateRevocationList Verifier::getCRL(const RefCertificate& target) {
  if (target.empty()) return RefCertificateRevocationList();
  if (lastCertificate.empty() || lastCertificate->native() != target->native()) {
    crls.clear();
    state_->remainingApplied = false;
    try {
      lastCertificate = target;
      getCRLs(lastCertificate, crls);
    } catch (...) {
      // Half a gathering must not pass for a whole one at the next call.
      lastCertificate = RefCertificate();
      crls.clear();
      throw;
    }
  }
  const RefObject next = crls.getCRL();
  return next.empty() ? RefCertificateRevocationList() : next->crl;
}

void Verifier::getCRLs(const RefCertificate& target, CRLContainer& container) {
  if (target.empty()) return;
  std::optional<ChainSubject> subject;
  beSubject(target, state_->vouchedChain(), subject);
  const DistributionPoints points(*target.get());
  // RFC 5280, 6.3.3, its last paragraph: CRLs of the certificate's issuer that no distribution
  // point names. They are looked for only where the certificate has none, and not after them.
  if (points.count() == 0) {
    const DistinguishedName& issuer = target->issuer();
    std::list<RefCertificateRevocationList> found;
    if (!VerificationRun::admitLookup()) {
      tellRefusal(SourceRecord::Source::Kind::kDirectory, SourceRecord::Source::Wanted::kCRLs,
                  kCRLDirectory);
    } else {
      askOnce(kCRLDirectory, issuer, found, [&](std::list<RefCertificateRevocationList>& answer) {
        HashDirLookupMethod(kCRLDirectory).getBySubject(issuer, answer);
        return true;
      });
    }
    store->find(issuer, found);
    for (const RefCertificateRevocationList& crl : found) {
      // 6.3.3 (b)(1): without a cRLIssuer the CRL's issuer is the certificate's.
      if (issuer != crl->crlInfo().issuer()) {
        log(kPriorityDebug, "Certificate and CRL issuers do not match");
        OutcomeRecord::setAside(Revocation::Reason::kOtherIssuer, crl);
        continue;
      }
      // On this path the line has always gone out without its text.
      if (!addCandidate(container, target, crl, RefCRLDistributionPoint())) {
        logMisplaced(noIssuerText(crl));
      }
    }
    return;
  }
  // 6.3.3: each distribution point, and each CRL that it leads to. Here the issuers of certificate
  // and CRL are not compared, not even without a cRLIssuer (b)(1): it is meant so, since indirect
  // CRLs are allowed.
  for (int i = 0; i < points.count() && VerificationRun::admitStep(); ++i) {
    const RefCRLDistributionPoint point = points[i];
    std::list<RefCertificateRevocationList> found;
    store->find(target, point, found);
    for (const RefCertificateRevocationList& crl : found) {
      if (!addCandidate(container, target, crl, point)) log(kPriorityDebug, noIssuerText(crl));
    }
  }
}

// False when nobody is known who issued the CRL. When the time is over nothing is added, and nobody is
// blamed for it.
bool Verifier::addCandidate(CRLContainer& container, const RefCertificate& target,
                            const RefCertificateRevocationList& crl,
                            const RefCRLDistributionPoint& point) {
  if (!VerificationRun::admitStep()) return true;
  // 6.3.3 (d)(3) and (4): the reasons of the distribution point, all where it names none.
  CRLContainer::Entry entry(target, crl, point.empty() ? kAllReasons : point->reasons());
  entry.distributionPoint = point;
  entry.issuer = store->findIssuer(crl, entry.score);
  if (entry.issuer.empty()) {
    OutcomeRecord::setAside(Revocation::Reason::kSignerUnknown, crl);
    return false;
  }
  container.add(entry);
  return true;
}

}  // namespace Velantrix::Crypto::PKX509
