#include "crl/CRLCache.h"
#include "crl/CacheUse.h"
#include "crl/RetrievedCRLs.h"
#include "crl/Retriever.h"
#include "foundation/base/DotSegments.h"
#include "foundation/base/Log.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "report/ExchangeFacts.h"
#include "report/ObjectOrigins.h"
#include "report/OwnRecord.h"
#include "store/CRLExpiry.h"
#include "store/LookupMemory.h"
#include "store/TolerantReading.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>
#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace HTTP = LW::HTTP;
using Kind = SourceRecord::Source::Kind;
using Wanted = SourceRecord::Source::Wanted;

namespace {

constexpr unsigned int kQueryTime = 15;  // seconds
constexpr std::size_t kMaximumCRL = std::size_t{64} * 1024 * 1024;
constexpr char kHosts[] = "hosts";  // all of them as one source, asked by what is sent

// Servers of CRLs, and the filters in front of them, know the appliance by these bytes.
std::string request(const Uri& uri) {
  return "GET " + uri.path() +
         " HTTP/1.0\r\n"
         "User-Agent: Velantrix\r\n"
         "Pragma: no-cache\r\n"
         "Accept: */*\r\n"
         "Connection: Keep-Alive\r\n"
         "\r\n";
}

// What the exchange consists of; the rest of a URI is not sent.
std::string requestKey(const Uri& uri) {
  return uri.scheme() + uri.hostname() + ' ' + std::to_string(uri.port()) + ' ' + uri.path();
}

RefCertificateRevocationList read(const Uri& uri, const LW::Buffer& body, SourceUse& use) {
  const auto malformed = [&](const std::string& what) {
    FetchRecord::notFetched(uri, what);
    use.failed({.failure = UseFacts::Failure::kMalformed, .reason = what});
  };
  try {
    RefCertificateRevocationList crl = readFirstCRL(body.data(), body.length());
    if (crl.empty()) malformed("the body is no CRL");
    return crl;
  } catch (const Exception& failure) {
    malformed("the body is no CRL: " + reasonOf(failure));
    throw;
  }
}

void fetch(const Uri& uri, std::list<RefCertificateRevocationList>& crls, SourceUse& use) {
  constexpr std::string_view kNetworkBytes = "network bytes";
  const std::size_t limit = NetworkBudget::admittedBytes(kMaximumCRL);
  if (limit == 0) {
    use.refused({.failure = UseFacts::Failure::kBudget, .resource = kNetworkBytes});
    return FetchRecord::notFetched(uri, "the verification has fetched too much already");
  }
  const HTTP::Answer answer =
      HTTP::exchange(uri, {kClientCertificateFile, kClientKeyFile},
                     {.header = request(uri),
                      .queryTime = kQueryTime,
                      .maxContent = limit,
                      .tooLarge = "larger than 64 MiB or than what a verification may fetch, or "
                                  "its header than 16 KiB"});
  if (answer.outcome != 0) NetworkBudget::countBytes(answer.connection->contentReceived());
  use.bytes(answer.received);
  countExchange(answer.failure, answer.received);
  // Cut by what is left for the whole verification, and not by what a CRL may have.
  const bool cut = answer.outcome == HTTP::Connection::kTooLarge && limit < kMaximumCRL;
  if (cut) Shortfall::note();
  if (answer.outcome != HTTP::Connection::kComplete) {
    tellFailure(use, answer.failure);
    if (cut) use.spent(kNetworkBytes);
    return FetchRecord::notFetched(uri, answer.problem);
  }
  const LW::Buffer& content = answer.connection->content();
  if (!VerificationRun::admitDecoding(content.length())) {
    use.refusedByBudget();
    return FetchRecord::notFetched(uri, "the verification has read too much already");
  }
  const RefCertificateRevocationList crl = read(uri, content, use);
  if (crl.empty()) return;
  use.found(1);
  ObjectOrigins::note(crl, {VerificationReport::Origin::Kind::kNetwork, use.origin()});
  crls.push_back(crl);
}

// A cache that cannot be written costs a fetch next time, not the result.
void cache(const Uri& uri, const std::list<RefCertificateRevocationList>& crls) {
  try {
    CRLCache(kCRLCacheDirectory).add(uri, crls);
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    tellNotStored(uri, failure);
  }
}

// A broken cache entry is as good as none: a fetch replaces it.
void notReadable(const Uri& uri, const std::string& reason) {
  FetchRecord::notCached(uri, "cache cannot be read: " + reason);
}

// Appends what the host answers, in this verification once for equal requests. Never throws.
void askHost(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  try {
    const std::string place = FetchRecord::placeOf(uri);
    if (!HTTP::isHandled(uri)) {
      SourceUse(Kind::kCRLServer, Wanted::kCRLs, place).refused(notSpoken(uri));
      log(kPriorityDebug, "Crypto::URILookup. Scheme not handled. " + uri.asString());
      return;
    }
    askOnce(kHosts, requestKey(uri), crls, [&](std::list<RefCertificateRevocationList>& found) {
      SourceUse use(Kind::kCRLServer, Wanted::kCRLs, place);
      if (!connectionAdmitted()) {
        use.refused(notAdmitted());
        FetchRecord::notFetched(uri, "no connection is made for it, and a log line says why");
        return false;
      }
      use.during([&] { fetch(uri, found, use); });
      // The cache's key has no dot segments (RFC 3986, 5.2.4) and the request does, so the server
      // may answer with what it keeps elsewhere than where the key says: nobody else is to find that.
      if (!hasDotSegments(uri.path())) cache(uri, found);
      return true;
    });
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception&) {
    // Whatever went wrong, nothing was found.
  }
}

// Appends what the cache has for the URI. True when that is something.
bool readCache(const Uri& uri, std::list<RefCertificateRevocationList>& crls, SourceUse& use) {
  const std::size_t before = crls.size();
  use.during([&] { HashDirLookupMethod(kCRLCacheDirectory).getBySubject(uri, crls); });
  use.found(crls.size() - before);
  return crls.size() > before;
}

Time storedAt(const Uri& uri) { return cacheFile(uri).status(true).creationTime(); }

// For those that only tell of it.
void tellWhenStored(const Uri& uri, SourceUse& use) noexcept {
  try {
    use.stored(storedAt(uri));
  } catch (const std::exception&) {
    // It goes without.
  }
}

// All that the cache has for the URI, whatever its dates.
void readCache(const Uri& uri, RetrievedCRLs& answer) {
  const TolerantReading reading;
  SourceUse use = cacheUse(uri);
  try {
    if (readCache(uri, answer.cached, use)) {
      answer.cachedAt = storedAt(uri);
      use.stored(answer.cachedAt);
    }
    if (!reading.reason().empty()) notReadable(uri, reading.reason());
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    notReadable(uri, reasonOf(failure));
  }
}

// What the verification that goes on has asked for the URI before, too: it asks nobody twice.
void takeUses(const std::string& place, SourceRecord& asked) {
  const SourceRecord* const record = SourceRecord::current();
  if (record == nullptr) return;
  for (SourceRecord::Use use : record->uses()) {
    use.about = nullptr;
    if (use.origin == place) asked.add(std::move(use));
  }
}

// In this verification once for a URI.
void findBy(Retriever& retriever, const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  constexpr char kWeb[] = "web";
  if (!crls.empty()) return;
  try {
    askOnce(kWeb, uri.asString(), crls, [&](std::list<RefCertificateRevocationList>& found) {
      RetrievedCRLs answer = retriever.crls(uri);
      found = std::move(answer.fetched);
      for (const RefCertificateRevocationList& crl : answer.cached) {
        if (isFresh(crl, answer.cachedAt)) found.push_back(crl);
      }
      return !answer.cut;
    });
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    notReadable(uri, reasonOf(failure));
  }
}

}  // namespace

URILookup::~URILookup() = default;

VerificationReport reportOnCRLs(const Uri& uri, bool found, Evidence& evidence) {
  const bool within = !evidence.verified;
  if (within) takeUses(FetchRecord::placeOf(uri), evidence.sources);
  evidence.verified = true;
  evidence.code = found ? X509_V_OK : X509_V_ERR_UNABLE_TO_GET_CRL;
  Revocation::Outcome outcome;
  outcome.status = found ? Revocation::Status::kGood : Revocation::Status::kUndetermined;
  outcome.code = evidence.code;
  evidence.revocation = {std::move(outcome)};
  return makeReport(evidence, {.checked = Time::now()});
}

bool isFresh(const RefCertificateRevocationList& crl, const Time& storedAt) {
  const Time now = Time::now();
  const ASN1::RefGeneralizedTime thisUpdate = crl->lastUpdate();
  return !thisUpdate.empty() && thisUpdate->asTime() <= now && now <= expiryOf(crl, storedAt);
}

void URILookup::find(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  if (uri.isNull()) return;
  const NoCancellation untilReturn;
  if (Retriever* const retriever = Retriever::current()) return findBy(*retriever, uri, crls);
  try {
    askOnce(kCRLCacheDirectory, uri, crls, [&](std::list<RefCertificateRevocationList>& found) {
      // What this verification has fetched need not be read again. It is the answer to this request,
      // and none of the cache to whatever URI has the same key.
      if (recallAnswer(kHosts, requestKey(uri), found)) return false;
      SourceUse use = cacheUse(uri);
      const bool any = readCache(uri, found, use);
      if (any) tellWhenStored(uri, use);
      return any;
    });
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    notReadable(uri, reasonOf(failure));
  }
  if (crls.empty()) askHost(uri, crls);
}

void URILookup::find(const Uri& uri, std::list<RefCertificateRevocationList>& crls,
                     VerificationReport& report) {
  Evidence evidence;
  {
    const OwnRecord record(evidence, nullptr);
    find(uri, crls);
  }
  report = reportOnCRLs(uri, !crls.empty(), evidence);
}

RetrievedCRLs retrieveCRLs(const Uri& uri) {
  RetrievedCRLs answer;
  if (uri.isNull()) return answer;
  const NoCancellation untilReturn;
  readCache(uri, answer);
  for (const RefCertificateRevocationList& crl : answer.cached) {
    if (isFresh(crl, answer.cachedAt)) return answer;
  }
  askHost(uri, answer.fetched);
  answer.cut = HTTP::isHandled(uri) && answer.fetched.empty();
  return answer;
}

}  // namespace Velantrix::Crypto::PKX509
