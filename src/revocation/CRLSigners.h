// Who signed the CRLs about a certificate: RFC 5280, 6.3.3 (f), (g) and (h).
#pragma once

#include "revocation/CRLCandidate.h"
#include "revocation/RevocationSources.h"
#include "revocation/Standings.h"

#include <list>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

class CRLSigners : private NonCopyable {
 public:
  // About the certificate that the path begins with; everything is borrowed.
  CRLSigners(const Path& path, RevocationSources& sources, Standings& standings, int securityLevel)
      : path_(path), sources_(sources), standings_(standings), securityLevel_(securityLevel) {}

  // Says of each candidate that is not refused, and not done yet, who signed it or why it is not
  // authentic.
  void authenticate(std::list<CRLCandidate>& candidates);

 private:
  void authenticate(CRLCandidate& candidate);
  std::vector<RefCertificate> onKnownPaths(const DistinguishedName& issuer) const;
  bool tryAll(std::vector<RefCertificate> signers, CRLCandidate& candidate, Standing& best);
  Standing tryOne(const RefCertificate& signer, const CRLCandidate& candidate);

  const Path& path_;
  RevocationSources& sources_;
  Standings& standings_;
  const int securityLevel_;
};

// Why the holder of the key, whose certificate is valid, has not issued the CRL: 6.3.3 (f) but for its path,
// (g) and (h). Nothing when he has.
std::optional<Reason> signatureRefused(const RefCertificate& signer,
                                       const CertificateRevocationList& crl, int securityLevel);

}  // namespace Velantrix::Crypto::PKX509::Revocation
