#include "refresh/WebMeans.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/x509.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

WebMeans::WebMeans(const RefreshSettings& settings, const std::string& cache)
    : settings_(settings),
      desk_(cache),
      cache_(cache),
      hints_(cache),
      issuers_(settings.trustDirectory, settings.certificates) {}

std::optional<VerifiedCache::Entry> WebMeans::held(const Uri& uri) { return cache_.read(uri); }

FetchedCRL WebMeans::fetch(const Uri& uri, const LW::HTTP::Validators& validators) {
  return fetchCRL(uri, validators, settings_.retrieval, desk_);
}

void WebMeans::withdraw(const Uri& uri) { desk_.withdraw(FetchDesk::placeOf(uri)); }

std::optional<Time> WebMeans::spareUntil(const Uri& uri) {
  std::optional<Time> until;
  for (const std::string& place : {FetchDesk::placeOf(uri), FetchDesk::hostPlaceOf(uri)}) {
    const std::optional<FetchDesk::Mark> mark = desk_.failureOf(place);
    if (mark && (!until || *until < mark->until)) until = mark->until;
  }
  return until;
}

CRLIssuer WebMeans::issuerOf(const Uri& uri, const RefCertificateRevocationList& crl) {
  return issuers_.of(crl, hints_.recall(uri));
}

VerifiedCache::Stored WebMeans::store(const Uri& uri, const RefCertificateRevocationList& crl,
                                      const CRLIssuer& issuer, const VerifiedCache::Notes& notes) {
  const RefCertificate& signer = issuer.path.front();
  const VerifiedCache::Stored result = cache_.store(uri, crl, X509_get0_pubkey(signer), notes);
  const bool isThere =
      result == VerifiedCache::Stored::kStored || result == VerifiedCache::Stored::kSame;
  // The trust anchor is where it was found.
  if (isThere) hints_.remember(uri, {issuer.path.begin(), std::prev(issuer.path.end())});
  return result;
}

void WebMeans::confirm(const Uri& uri, const LW::HTTP::Validators& asked,
                       const VerifiedCache::Notes& notes) {
  cache_.confirm(uri, asked, notes);
}

}  // namespace Velantrix::Crypto::PKX509
