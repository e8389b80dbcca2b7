// CRLs by URI for whoever judges dates for himself, who may be asking about a moment in the past.
//
//   const RetrievedCRLs answer = retrieveCRLs(uri);
//   for (const RefCertificateRevocationList& crl : answer.cached) ...
//   for (const RefCertificateRevocationList& crl : answer.fetched) ...
#pragma once

#include "report/Evidence.h"

#include <pkx509/VerificationReport.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <list>

namespace Velantrix::Crypto::PKX509 {

struct RetrievedCRLs {
  std::list<RefCertificateRevocationList> cached;
  Time cachedAt = {};  // when the file of the cache came to be
  std::list<RefCertificateRevocationList> fetched;
  bool cut = false;  // the host was to be asked, and gave none
};

// Issued by now and not run out, as far as it says so; one that does not say runs out some time after it
// was stored.
bool isFresh(const RefCertificateRevocationList& crl, const Time& storedAt);

// On a look-up of which the evidence has been noted, by an `OwnRecord` about nothing.
VerificationReport reportOnCRLs(const Uri& uri, bool found, Evidence& evidence);

// As `URILookup`, but for the cache: all that it has is there, expired or not, and the network is
// asked where nothing of it is fresh now. Never throws for what cannot be read or fetched.
RetrievedCRLs retrieveCRLs(const Uri& uri);

}  // namespace Velantrix::Crypto::PKX509
