// Who signed a CRL that nobody's certificate is verified with at the moment.
//
//   CRLIssuers issuers({.trustDirectory = kCADirectory, .candidates = certificates});
//   const CRLIssuer issuer = issuers.of(crl, hints);
//   if (issuer.isVerified()) store(crl, issuer);
//
// RFC 5280, 6.3.3 (f) and (g), with two differences. No certificate says which trust anchor it has to be,
// so that any of the trust directory will do; and revocation of the issuer is not looked at, since the
// CRL that would tell of it may be this one, or one that is to be fetched as well. The cache that it goes
// to makes nothing trusted: verifications look at all of it again, with the certificate at hand.
#pragma once

#include "refresh/RefreshMeans.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class CRLIssuers : private NonCopyable {
 public:
  // Of one name, for one CRL.
  static constexpr std::size_t kMostCandidates = 16;

  // Candidates are untrusted.
  CRLIssuers(std::string trustDirectory, const std::list<RefCertificate>& candidates);

  // Hints are further candidates. It is cut where the run of this thread falls short of something. Throws Exception when the trust directory cannot be read.
  CRLIssuer of(const RefCertificateRevocationList& crl,
               const std::vector<RefCertificate>& hints) const;

 private:
  std::string trustDirectory_;
  std::list<RefCertificate> candidates_;
};

}  // namespace Velantrix::Crypto::PKX509
