#include "retrieval/WebRetriever.h"

#include "crl/CacheUse.h"
#include "foundation/base/DotSegments.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/CRLParts.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/FetchRecord.h"
#include "report/ObjectOrigins.h"
#include "report/SourceRecord.h"
#include "retrieval/IssuerHints.h"
#include "retrieval/OCSPMemory.h"
#include "retrieval/OCSPRetrieval.h"

#include <pkx509/FixedPaths.h>
#include <velantrix/Exception.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Source = SourceRecord::Source;

// Who refreshes the cache has no certificate at hand that came with its issuers. Trust anchors are where
// they were found.
std::vector<RefCertificate> belowAnchor(std::vector<RefCertificate> path) {
  if (path.back()->isSelfSigned()) path.pop_back();
  return path;
}

}  // namespace

FetchDesk& WebRetriever::desk() {
  if (!desk_) desk_.emplace(kCRLCacheDirectory);
  return *desk_;
}

VerifiedCache& WebRetriever::cache() {
  if (!cache_) cache_.emplace(kCRLCacheDirectory);
  return *cache_;
}

// What lies in the cache may be anybody's, and only saves the asking.
std::optional<VerifiedCache::Entry> WebRetriever::readCache(const Uri& uri) {
  SourceUse use = cacheUse(uri);
  std::optional<VerifiedCache::Entry> entry;
  try {
    use.during([&] { entry = cache().read(uri); });
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    FetchRecord::notCached(uri, "cache cannot be read: " + reasonOf(failure));
  }
  if (entry) {
    use.found(entry->crls.size());
    use.stored(entry->stored);
    const ObjectOrigins::Where origin{VerificationReport::Origin::Kind::kCache, use.origin(),
                                      cacheFile(uri).asString()};
    for (const RefCertificateRevocationList& crl : entry->crls) ObjectOrigins::note(crl, origin);
  }
  return entry;
}

RetrievedCRLs WebRetriever::crls(const Uri& uri) {
  RetrievedCRLs answer;
  if (uri.isNull()) return answer;
  std::optional<VerifiedCache::Entry> entry = readCache(uri);
  LW::HTTP::Validators validators;
  if (entry) {
    answer.cached = std::move(entry->crls);
    answer.cachedAt = entry->stored;
    const bool fresh = std::any_of(
        answer.cached.begin(), answer.cached.end(),
        [&](const RefCertificateRevocationList& crl) { return isFresh(crl, answer.cachedAt); });
    if (fresh) return answer;
    validators = entry->notes.validators;
  }
  ask(uri, validators, answer);
  return answer;
}

RetrievedCRLs WebRetriever::crlsOfHost(const Uri& uri) {
  RetrievedCRLs answer;
  if (!uri.isNull()) ask(uri, {}, answer);
  return answer;
}

void WebRetriever::ask(const Uri& uri, const LW::HTTP::Validators& validators,
                       RetrievedCRLs& answer) {
  try {
    FetchedCRL fetched = fetchCRL(uri, validators, settings_, desk());
    // It was asked since what the cache has is of no use by now, and who wrote that may have given it the
    // validators of something else.
    if (fetched.result == FetchedCRL::Result::kNotModified) {
      fetched = fetchCRL(uri, {}, settings_, desk());
    }
    answer.cut = fetched.crl.empty() && LW::HTTP::isHandled(uri);
    if (fetched.crl.empty()) return;
    answer.fetched.push_back(fetched.crl);
    fetched_.push_back({uri, fetched.crl, fetched.notes});
  } catch (const std::bad_alloc&) {
    Shortfall::note();
    answer.cut = true;
  }
}

// Once for each that was fetched here: what is in the cache was verified when it came there, or is found
// to be no better than what a network sends.
void WebRetriever::verified(const Uri& uri, const RefCertificateRevocationList& crl,
                            const std::vector<RefCertificate>& path) noexcept {
  const auto found = std::find_if(fetched_.begin(), fetched_.end(), [&](const Fetched& one) {
    return isIdentical(*one.crl.get(), *crl.get()) && one.uri.asString() == uri.asString();
  });
  // The file would be that of the URI without them.
  if (found == fetched_.end() || hasDotSegments(uri.path())) return;
  try {
    const Fetched fetched = std::move(*found);
    fetched_.erase(found);
    EVP_PKEY* const key = X509_get0_pubkey(path.front());
    if (key == nullptr) return;
    const VerifiedCache::Stored stored = cache().store(uri, crl, key, fetched.notes);
    const bool isThere =
        stored == VerifiedCache::Stored::kStored || stored == VerifiedCache::Stored::kSame;
    if (isThere) IssuerHints(kCRLCacheDirectory).remember(uri, belowAnchor(path));
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    tellNotStored(uri, failure);
  }
}

std::optional<Retriever::OCSPAnswer> WebRetriever::ocsp(const Uri& responder,
                                                        const std::string& request) {
  if (!wantsNonce()) {
    if (const auto kept = OCSPMemory::instance().recall(responder, request)) {
      SourceUse use(Source::Kind::kCache, Source::Wanted::kAnswer, FetchRecord::placeOf(responder));
      use.found(1);
      use.stored(kept->fetched);
      return OCSPAnswer{.body = kept->body, .fetched = kept->fetched, .kept = true};
    }
  }
  std::optional<std::string> body = retrieveOCSP(responder, request, settings_, desk());
  if (!body) return std::nullopt;
  return OCSPAnswer{.body = *std::move(body), .fetched = Time::now()};
}

void WebRetriever::isOfUse(const Uri& responder, const std::string& request,
                           const OCSPAnswer& answer, const Time& nextUpdate) noexcept {
  if (wantsNonce() || answer.kept) return;
  OCSPMemory::instance().keep(responder, request, {answer.body, answer.fetched}, nextUpdate);
}

void WebRetriever::isOfNoUse(const Uri& responder, const std::string& request) noexcept {
  OCSPMemory::instance().forget(responder, request);
}

}  // namespace Velantrix::Crypto::PKX509
