// Which CRLs are about a certificate, and for which reasons: RFC 5280, 6.3.3 (b) and (d).
//
//   const CRLScope scope(certificate);
//   scope.forEachPlace(ask);                              // where its CRLs are to be found
//   const CRLScope::Verdict verdict = scope.of(crl, true);
//   if (!verdict.refused) reasons_mask |= verdict.interim_reasons_mask;
#pragma once

#include "foundation/model/DistributionPoints.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "report/RevocationOutcome.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Uri.h>

#include <openssl/x509v3.h>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

// Where a CRL is looked for: one of the two.
struct Place {
  std::optional<Uri> uri = {};
  std::optional<DistinguishedName> name = {};
};

// The places that distribution points lead to, in their order: of each its names, a relative one
// completed, and the issuers that it names. False from `visit` ends it.
using VisitPlace = std::function<bool(const Place&)>;
void forEachPlace(const DistributionPoints& points, const DistinguishedName& issuer,
                  const VisitPlace& visit);

class CRLScope {
 public:
  struct Verdict {
    unsigned int interim_reasons_mask = 0;  // as OpenSSL's reason bits; 0 where it is refused
    std::optional<Reason> refused = {};
    const char* detail = "";
  };

  // Throws Exception when one of the extensions that decide is broken.
  explicit CRLScope(const RefCertificate& certificate);

  void forEachPlace(const VisitPlace& visit) const;

  // Through which distribution points a list may count: those that the certificate has; that which
  // 6.3.3, in its last paragraph, assumes for the lists of its issuer, where none of these will do; or
  // all of them.
  enum class Through { kNamed, kNamedElseAssumed, kNamedAndAssumed };
  Verdict of(const CertificateRevocationList& crl, Through points) const;

 private:
  // The fields of a distribution point that decide, of one that the certificate has or that is assumed.
  struct Point {
    RefCRLDistributionPointName name = {};  // empty: it is left out, or it is the assumed one
    std::shared_ptr<const GENERAL_NAMES> cRLIssuer = {};
    unsigned int reasons = 0;
    bool assumed = false;
  };

  Verdict throughOne(const CertificateRevocationList& crl, const Point& point) const;
  bool issuerMatches(const CertificateRevocationList& crl, const Point& point,
                     const RefIssuingDistributionPoint& idp) const;
  bool namesMatch(const CRLDistributionPointName& idp, const Point& point,
                  const DistinguishedName& crlIssuer) const;
  const char* otherKind(const IssuingDistributionPoint& idp) const;

  RefCertificate certificate_;
  bool isCA_;
  bool isVersion3_;
  DistributionPoints points_;
  std::vector<Point> decisive_;
  Owned<GENERAL_NAMES> issuerAltName_;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
