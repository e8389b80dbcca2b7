// What becomes of a CRL when it is known whether its issuer signed it.
#pragma once

#include <pkx509/ObjectStore.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

#include <vector>

namespace Velantrix::Crypto::PKX509 {

// Takes a CRL of that distribution point of the certificate out of the cache, after its signature was
// found wrong and an issuer of its name was verified. Whoever could answer for its URI once would
// keep everybody from the right one until the day that the forgery names; so the next verification
// fetches again, and this one goes on with what it has.
//
// Nothing is done when another certificate that the store knows by the issuer's name has signed it,
// when the cache holds something else by now, and when no trust anchor vouches for the certificate:
// a stranger's empties no cache.
void takeOutOfCache(const RefCertificateRevocationList& crl, const RefCertificate& certificate,
                    const RefCRLDistributionPoint& point, const RefObjectStore& store) noexcept;

// Where the thread has a `Retriever`, has it keep a CRL of that distribution point: the issuer has signed it,
// and is valid. Where it stands in the chain, what follows is its path.
void keepVerified(const RefCertificateRevocationList& crl, const RefCertificate& issuer,
                  const RefCRLDistributionPoint& point,
                  const std::vector<RefCertificate>& chain) noexcept;

}  // namespace Velantrix::Crypto::PKX509
