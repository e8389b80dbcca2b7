#include "revocation/CRLScope.h"

#include "foundation/model/ExtensionDecoder.h"
#include "foundation/model/GeneralNames.h"
#include "foundation/model/RelativeName.h"
#include "foundation/run/VerificationRun.h"

#include <openssl/objects.h>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

constexpr char kContext[] = "X509::Certificate";

// False when the visitor wants no more.
bool visitNames(const std::shared_ptr<const GENERAL_NAMES>& names, const VisitPlace& visit) {
  for (int i = 0; i < countOf(names); ++i) {
    const RefGeneralName name = generalName(names, i);
    Place place;
    if (name->type() == GEN_DIRNAME) {
      place.name = name->dn();
    } else if (name->type() == GEN_URI) {
      place.uri = name->uri();
      if (place.uri->isNull()) continue;
    } else {
      continue;
    }
    if (!visit(place)) return false;
  }
  return true;
}

// 4.2.1.13: a name relative to the issuer of the CRL, which is the cRLIssuer where there is one.
bool visitRelative(const std::string& relative, const std::shared_ptr<const GENERAL_NAMES>& issuers,
                   const DistinguishedName& issuer, const VisitPlace& visit) {
  if (countOf(issuers) == 0) {
    const DistinguishedName full = completed(relative, issuer);
    return full.empty() || visit({.name = full});
  }
  for (int i = 0; i < countOf(issuers); ++i) {
    const RefGeneralName name = generalName(issuers, i);
    if (name->type() != GEN_DIRNAME) continue;
    const DistinguishedName full = completed(relative, name->dn());
    if (!full.empty() && !visit({.name = full})) return false;
  }
  return true;
}

bool visitPoint(const CRLDistributionPoint& point, const DistinguishedName& issuer,
                const VisitPlace& visit) {
  const RefCRLDistributionPointName name = point.distributionPointName();
  const std::shared_ptr<const GENERAL_NAMES> issuers = point.nativeIssuers();
  if (!name.empty()) {
    const bool goOn = name->type() == CRLDistributionPointName::kFullName
                          ? visitNames(name->nativeFullName(), visit)
                          : visitRelative(name->relativeName(), issuers, issuer, visit);
    if (!goOn) return false;
  }
  // 4.2.1.13: without a distribution point name, the CRL is in the cRLIssuer's entry. With one, a
  // directory that is kept by issuers has it there as well.
  return visitNames(issuers, visit);
}

}  // namespace

void forEachPlace(const DistributionPoints& points, const DistinguishedName& issuer,
                  const VisitPlace& visit) {
  for (int i = 0; i < points.count(); ++i) {
    if (!visitPoint(*points[i].get(), issuer, visit)) return;
  }
}

CRLScope::CRLScope(const RefCertificate& certificate)
    : certificate_(certificate),
      isCA_(certificate->isCACert()),
      isVersion3_(X509_get_version(certificate) == X509_VERSION_3),
      points_(*certificate.get()),
      issuerAltName_(decodeOnlyExtension(X509_get0_extensions(certificate), NID_issuer_alt_name,
                                         d2i_GENERAL_NAMES, kContext)) {
  decisive_.reserve(static_cast<std::size_t>(points_.count()));
  for (int i = 0; i < points_.count(); ++i) {
    const RefCRLDistributionPoint point = points_[i];
    decisive_.push_back(
        {point->distributionPointName(), point->nativeIssuers(), point->reasons(), false});
  }
}

void CRLScope::forEachPlace(const VisitPlace& visit) const {
  Revocation::forEachPlace(points_, certificate_->issuer(), visit);
}

CRLScope::Verdict CRLScope::of(const CertificateRevocationList& crl, Through points) const {
  Verdict verdict{.refused = Reason::kOtherIssuer, .detail = "it is of another issuer"};
  const auto take = [&verdict](const Verdict& next) {
    if (!next.refused) {
      verdict.refused.reset();
      verdict.interim_reasons_mask |= next.interim_reasons_mask;
    } else if (verdict.refused == Reason::kOtherIssuer) {
      verdict = next;
    }
  };
  // 6.3.3: for each distribution point.
  for (const Point& point : decisive_) {
    if (!VerificationRun::admitStep()) break;
    take(throughOne(crl, point));
  }
  // 6.3.3, its last paragraph: the reasons and the cRLIssuer omitted, a distribution point name of the
  // certificate issuer.
  const bool assume = points == Through::kNamedAndAssumed ||
                      (points == Through::kNamedElseAssumed && verdict.refused);
  if (assume) take(throughOne(crl, {.reasons = kAllReasons, .assumed = true}));
  return verdict;
}

CRLScope::Verdict CRLScope::throughOne(const CertificateRevocationList& crl,
                                       const Point& point) const {
  const RefIssuingDistributionPoint idp = crl.issuingDistributionPoint();
  // 6.3.3 (b)(1)
  if (!issuerMatches(crl, point, idp)) {
    return {.refused = Reason::kOtherIssuer, .detail = "it is of another issuer"};
  }
  if (idp.empty()) return {.interim_reasons_mask = point.reasons};  // 6.3.3 (d)(3) and (4)
  // 6.3.3 (b)(2)(i)
  const RefCRLDistributionPointName name = idp->distributionPointName();
  if (!name.empty() && !namesMatch(*name.get(), point, crl.crlInfo().issuer())) {
    return {.refused = Reason::kOutOfScope, .detail = "it is of another distribution point"};
  }
  if (const char* const kind = otherKind(*idp.get())) {
    return {.refused = Reason::kOutOfScope, .detail = kind};
  }
  // 6.3.3 (d)(1) and (2); what is left out stands for all reasons.
  const unsigned int interim_reasons_mask = point.reasons & idp->reasons();
  if (interim_reasons_mask == 0) {
    return {.refused = Reason::kOutOfScope, .detail = "it is about other reasons"};
  }
  return {.interim_reasons_mask = interim_reasons_mask};
}

bool CRLScope::issuerMatches(const CertificateRevocationList& crl, const Point& point,
                             const RefIssuingDistributionPoint& idp) const {
  const DistinguishedName& issuer = crl.crlInfo().issuer();
  if (countOf(point.cRLIssuer) == 0) return issuer == certificate_->issuer();
  return holdDirectoryName(point.cRLIssuer.get(), issuer) && !idp.empty() && idp->indirectCRL();
}

// Relative names are completed by the issuer of the CRL on both sides, so that the two spellings of
// one name are the same (4.2.1.13 and 5.2.5).
bool CRLScope::namesMatch(const CRLDistributionPointName& idp, const Point& point,
                          const DistinguishedName& crlIssuer) const {
  // A relative name makes another name of it.
  if (point.assumed) {
    return idp == certificate_->issuer() ||
           haveOneInCommon(idp.nativeFullName().get(), issuerAltName_.get());
  }
  // The distribution field is omitted from the DP: the names in its cRLIssuer.
  if (point.name.empty()) {
    if (idp.type() == CRLDistributionPointName::kFullName) {
      return haveOneInCommon(idp.nativeFullName().get(), point.cRLIssuer.get());
    }
    return holdDirectoryName(point.cRLIssuer.get(), completed(idp.relativeName(), crlIssuer));
  }
  if (point.name->type() == idp.type()) return *point.name.get() == idp;
  if (idp.type() == CRLDistributionPointName::kRelativeName) {
    return *point.name.get() == completed(idp.relativeName(), crlIssuer);
  }
  return idp == completed(point.name->relativeName(), crlIssuer);
}

// What kind of certificates it is about, where that is another one; else null.
const char* CRLScope::otherKind(const IssuingDistributionPoint& idp) const {
  if (idp.onlyUser() && isCA_) return "it is not about certificates of CAs";  // 6.3.3 (b)(2)(ii)
  if (idp.onlyCA() && !isCA_) return "it is about certificates of CAs only";  // 6.3.3 (b)(2)(iii)
  if (idp.onlyAttr()) return "it is about attribute certificates only";       // 6.3.3 (b)(2)(iv)
  // 5.2.5
  if (isVersion3_ || !(idp.onlyUser() || idp.onlyCA())) return nullptr;
  return "it is not about certificates of version 1 or 2";
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
