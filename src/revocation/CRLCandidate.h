// One CRL that may be about a certificate, and what has been found out about it.
#pragma once

#include "foundation/model/DistributionPoints.h"
#include "report/RevocationOutcome.h"
#include "revocation/Standings.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509::Revocation {

struct CRLCandidate {
  RefCertificateRevocationList crl = {};
  Provenance from = {};
  bool throughPoint = false;
  std::optional<Uri> uri = {};  // where a URI gave it

  // Why it does not count, as far as its form, its times and its scope say so (6.3.3 (a), (b), (d)).
  std::optional<Reason> refused = {};
  std::string detail = {};
  unsigned int interim_reasons_mask = 0;
  std::optional<DistributionPoints> freshest = {};  // where it says that its delta CRLs are (5.2.6)

  // Who signed it (6.3.3 (f) to (h)), and what has to be assumed for it; looked for again for each
  // assumption.
  RefCertificate signer = {};
  Hypotheses restsOn = {};
  std::optional<Reason> unauthentic = {};
  std::shared_ptr<const AboutSigner> aboutSigner = {};  // where it is not authentic

  bool counts() const noexcept { return !refused && !unauthentic && !signer.empty(); }
  void forgetSigner() {
    signer = RefCertificate();
    unauthentic.reset();
    aboutSigner.reset();
  }
  EVP_PKEY* key() const { return X509_get0_pubkey(signer); }
};

// A CRL as evidence: the handle, of which texts are made when somebody reads.
Statement statementOf(const CRLCandidate& candidate);

// 6.3.3 (a), 5.1.2.4 and 5.1.2.5: issued by then, and not run out. One that does not say when it runs
// out does so after `maximumAge` seconds.
bool isIssuedBy(const CertificateRevocationList& crl, const Time& time);
bool isCurrentAt(const CertificateRevocationList& crl, const Time& time, unsigned int maximumAge);

}  // namespace Velantrix::Crypto::PKX509::Revocation
