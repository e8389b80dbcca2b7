#include "crl/CRLCache.h"
#include "crl/RetrievedCRLs.h"
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
#include "store/CRLExpiry.h"
#include "store/LookupMemory.h"
#include "store/TolerantReading.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>
#include <velantrix/Exception.h>

#include <exception>
#include <new>
#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace HTTP = LW::HTTP;

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

// What an exception says, without the path of the cache in front.
std::string reasonOf(const std::exception& failure) {
  const auto* const ours = dynamic_cast<const Exception*>(&failure);
  std::string text = ours == nullptr ? failure.what() : ours->stringParameter();
  if (!text.starts_with(kCRLCacheDirectory)) return text;
  const std::size_t end = text.find(": ");
  return end == std::string::npos ? text : text.substr(end + 2);
}

RefCertificateRevocationList read(const Uri& uri, const LW::Buffer& body) {
  try {
    RefCertificateRevocationList crl = readFirstCRL(body.data(), body.length());
    if (crl.empty()) FetchRecord::notFetched(uri, "the body is no CRL");
    return crl;
  } catch (const Exception& malformed) {
    FetchRecord::notFetched(uri, "the body is no CRL: " + reasonOf(malformed));
    throw;
  }
}

void fetch(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  const std::size_t limit = NetworkBudget::admittedBytes(kMaximumCRL);
  if (limit == 0) {
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
  // Cut by what is left for the whole verification, and not by what a CRL may have.
  if (answer.outcome == HTTP::Connection::kTooLarge && limit < kMaximumCRL) Shortfall::note();
  if (answer.outcome != HTTP::Connection::kComplete) {
    return FetchRecord::notFetched(uri, answer.problem);
  }
  const LW::Buffer& content = answer.connection->content();
  if (!VerificationRun::admitDecoding(content.length())) {
    return FetchRecord::notFetched(uri, "the verification has read too much already");
  }
  const RefCertificateRevocationList crl = read(uri, content);
  if (!crl.empty()) crls.push_back(crl);
}

// A cache that cannot be written costs a fetch next time, not the result.
void cache(const Uri& uri, const std::list<RefCertificateRevocationList>& crls) {
  try {
    CRLCache(kCRLCacheDirectory).add(uri, crls);
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    FetchRecord::notCached(uri, "cache cannot be written: " + reasonOf(failure));
  }
}

// A broken cache entry is as good as none: a fetch replaces it.
void notReadable(const Uri& uri, const std::string& reason) {
  FetchRecord::notCached(uri, "cache cannot be read: " + reason);
}

// Appends what the host answers, in this verification once for equal requests. Never throws.
void askHost(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  try {
    if (!HTTP::isHandled(uri)) {
      log(kPriorityDebug, "Crypto::URILookup. Scheme not handled. " + uri.asString());
      return;
    }
    askOnce(kHosts, requestKey(uri), crls, [&](std::list<RefCertificateRevocationList>& found) {
      if (!connectionAdmitted()) {
        FetchRecord::notFetched(uri, "no connection is made for it, and a log line says why");
        return false;
      }
      fetch(uri, found);
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

// All that the cache has for the URI, whatever its dates.
void readCache(const Uri& uri, RetrievedCRLs& answer) {
  const TolerantReading reading;
  try {
    HashDirLookupMethod(kCRLCacheDirectory).getBySubject(uri, answer.cached);
    if (!answer.cached.empty()) {
      const File::Path path(kCRLCacheDirectory, HashDirLookupMethod::fileName(uri));
      answer.cachedAt = path.status(true).creationTime();
    }
    if (!reading.reason().empty()) notReadable(uri, reading.reason());
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    notReadable(uri, reasonOf(failure));
  }
}

bool isFresh(const RefCertificateRevocationList& crl, const Time& since) {
  const Time now = Time::now();
  const ASN1::RefGeneralizedTime thisUpdate = crl->lastUpdate();
  return !thisUpdate.empty() && thisUpdate->asTime() <= now && now <= expiryOf(crl, since);
}

}  // namespace

URILookup::~URILookup() = default;

void URILookup::find(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  if (uri.isNull()) return;
  const NoCancellation untilReturn;
  try {
    askOnce(kCRLCacheDirectory, uri, crls, [&](std::list<RefCertificateRevocationList>& found) {
      // What this verification has fetched need not be read again. It is the answer to this request,
      // and none of the cache to whatever URI has the same key.
      if (recallAnswer(kHosts, requestKey(uri), found)) return false;
      HashDirLookupMethod(kCRLCacheDirectory).getBySubject(uri, found);
      return !found.empty();
    });
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception& failure) {
    notReadable(uri, reasonOf(failure));
  }
  if (crls.empty()) askHost(uri, crls);
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
