// What authentic CRLs say together about a certificate: RFC 5280, 5.2.4 and 6.3.3 (a), (c) and (i) to
// (l).
#pragma once

#include "revocation/CRLCandidate.h"

#include <pkx509/RevocationSettings.h>
#include <velantrix/Certificate.h>
#include <velantrix/Time.h>

#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

struct CRLStatus {
  Status status = Status::kUndetermined;
  Revoked revoked = {};
  std::vector<const CRLCandidate*> decidedBy = {};  // borrowed from what was asked about
  std::vector<std::pair<const CRLCandidate*, Reason>> setAside = {};
};

// Of the candidates only those that count are looked at. Each of them is about the certificate, and
// issued by the time.
CRLStatus statusFrom(const std::vector<const CRLCandidate*>& candidates,
                     const RefCertificate& certificate, const Time& time,
                     const RevocationSettings& settings);

// 5.3.3: whether the list has an entry for the certificate, other than one that takes it off.
bool revokes(const CertificateRevocationList& crl, const RefCertificate& certificate);

}  // namespace Velantrix::Crypto::PKX509::Revocation
