// What authentic CRLs say together about a certificate: RFC 5280, 5.2.4 and 6.3.3 (a), (c) and (i) to
// (l).
#pragma once

#include "revocation/CRLCandidate.h"

#include <pkx509/RevocationSettings.h>
#include <velantrix/Certificate.h>
#include <velantrix/Time.h>

#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

struct CRLStatus {
  Status status = Status::kUndetermined;
  Revoked revoked = {};
  // Borrowed from what was asked about; of an undetermined status, what counts and is not enough.
  std::vector<const CRLCandidate*> decidedBy = {};
  // As OpenSSL's reason bits; 0 where nothing counts.
  unsigned int uncoveredReasons = 0;
  struct SetAside {
    const CRLCandidate* candidate;
    Reason reason;
    const char* detail = "";
  };
  std::vector<SetAside> setAside = {};
};

// Of the candidates only those that count are looked at. Each of them is about the certificate, and
// issued by the time.
CRLStatus statusFrom(const std::vector<const CRLCandidate*>& candidates,
                     const RefCertificate& certificate, const Time& time,
                     const RevocationSettings& settings);

// 5.3.3: whether the list has an entry for the certificate, other than one that takes it off.
bool revokes(const CertificateRevocationList& crl, const RefCertificate& certificate);

}  // namespace Velantrix::Crypto::PKX509::Revocation
