#include "refresh/CRLIssuers.h"

#include "foundation/base/Shortfall.h"
#include "foundation/run/VerificationRun.h"
#include "revocation/CRLSigners.h"
#include "verify/BuiltChain.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/RevocationSettings.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

// What signs neither certificates nor CRLs is of no use here, and a list of certificates may be that of all
// who write mails.
bool mayIssue(const RefCertificate& certificate) {
  return !certificate.empty() &&
         (X509_get_key_usage(certificate) & (KU_CRL_SIGN | KU_KEY_CERT_SIGN)) != 0;
}

// Why nobody's signature is worth looking at; empty when it is.
std::string formRefused(const CertificateRevocationList& crl) {
  if (const char* const rule = crl.brokenRule()) {
    return std::string("the CRL is malformed: ") + rule;
  }
  if (crl.hasUnhandledCriticalExtension()) {
    return "the CRL has a critical extension that is not known";
  }
  return {};
}

// For people; empty when he has issued it.
std::string refusalOf(const RefCertificate& signer, const CertificateRevocationList& crl) {
  using Revocation::Reason;
  const std::optional<Reason> reason =
      Revocation::signatureRefused(signer, crl, RevocationSettings().securityLevel);
  if (!reason) return {};
  if (reason == Reason::kSignerNotAllowed) {
    return "the certificate of the CRL's issuer does not allow to sign CRLs";
  }
  return reason == Reason::kTooWeak ? "the signature of the CRL is too weak"
                                    : "the signature of the CRL is wrong";
}

// For one CRL.
class Search {
 public:
  Search(const std::string& trustDirectory, const CertificateRevocationList& crl)
      : crl_(crl), store_(trustDirectory, X509_FILETYPE_PEM) {}

  void add(const RefCertificate& candidate) {
    if (!mayIssue(candidate)) return;
    untrusted_.push_back(candidate);
    store_->add(std::list{candidate});
  }

  CRLIssuer run() {
    CRLIssuer best{.refusal = "the issuer of the CRL is not known"};
    for (const RefCertificate& signer : namesakes()) {
      if (!VerificationRun::admitStep()) break;
      CRLIssuer issuer = tryOne(signer);
      if (issuer.isVerified()) return issuer;
      best = std::move(issuer);
    }
    return best;
  }

 private:
  // Those whose key the CRL names first.
  std::vector<RefCertificate> namesakes() const {
    std::list<RefCertificate> all;
    store_->findAll(crl_.crlInfo().issuer(), all);
    std::vector<RefCertificate> found;
    for (const RefCertificate& one : all) {
      const bool known = std::any_of(found.begin(), found.end(), [&](const RefCertificate& other) {
        return X509_cmp(one, other) == 0;
      });
      if (!known) found.push_back(one);
    }
    const RefAuthorityKeyIdentifier authority = crl_.crlInfo().authorityKeyIdentifier();
    if (!authority.empty()) {
      std::stable_partition(found.begin(), found.end(), [&](const RefCertificate& signer) {
        return X509_check_akid(signer, authority->native()) == X509_V_OK;
      });
    }
    if (found.size() > CRLIssuers::kMostCandidates) found.resize(CRLIssuers::kMostCandidates);
    return found;
  }

  // The key is used only after its own certificate has been verified.
  CRLIssuer tryOne(const RefCertificate& signer) {
    Verifier::Config config;
    config.flags =
        ConformingVerifier::kDefaultFlags & ~(X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    ConformingVerifier verifier(store_->clone(), signer, RefStackOfCertificate(untrusted_), config);
    const int verdict = verifier.isValid();
    if (verdict != X509_V_OK) {
      return {.refusal = std::string("the certificate of the CRL's issuer is not valid: ") +
                         X509_verify_cert_error_string(verdict)};
    }
    std::string refusal = refusalOf(signer, crl_);
    if (!refusal.empty()) return {.refusal = std::move(refusal)};
    return {.path = chainOf(verifier)};
  }

  const CertificateRevocationList& crl_;
  RefObjectStore store_;
  std::list<RefCertificate> untrusted_;
};

}  // namespace

CRLIssuers::CRLIssuers(std::string trustDirectory, const std::list<RefCertificate>& candidates)
    : trustDirectory_(std::move(trustDirectory)) {
  std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(candidates_), mayIssue);
}

CRLIssuer CRLIssuers::of(const RefCertificateRevocationList& crl,
                         const std::vector<RefCertificate>& hints) const {
  if (std::string refusal = formRefused(*crl.get()); !refusal.empty()) {
    return {.refusal = std::move(refusal)};
  }
  Search search(trustDirectory_, *crl.get());
  for (const RefCertificate& candidate : candidates_) search.add(candidate);
  for (const RefCertificate& hint : hints) search.add(hint);
  const Shortfall::Watch watch;
  CRLIssuer issuer = search.run();
  if (!issuer.isVerified() && watch.noted()) {
    issuer = {.refusal = "who issued the CRL was not found out before the end", .cut = true};
  }
  return issuer;
}

}  // namespace Velantrix::Crypto::PKX509
