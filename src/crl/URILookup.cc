#include "crl/CRLCache.h"
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
#include "store/LookupMemory.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>
#include <velantrix/Exception.h>

#include <chrono>
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

// Why an exchange that was begun came to nothing.
std::string reasonOf(int outcome, const HTTP::Connection& connection, bool whole) {
  switch (outcome) {
    case HTTP::Connection::kTimedOut:
      return whole ? "no answer in " + std::to_string(kQueryTime) + " s"
                   : "no answer in the time that was left for the network";
    case HTTP::Connection::kCutShort:
      return "the answer ends in the middle";
    case HTTP::Connection::kTooLarge:
      return "larger than 64 MiB or than what a verification may fetch, or its header than 16 KiB";
    case HTTP::Connection::kOtherStatus:
      return "HTTP status " + std::to_string(connection.status());
    case HTTP::Connection::kMalformed:
      return "the answer is not HTTP";
    default:
      return "the server closed the connection without an answer";
  }
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

HTTP::RefStream streamFor(const Uri& uri) {
  try {
    return HTTP::streamFor(uri, {kClientCertificateFile, kClientKeyFile});
  } catch (const std::exception& failure) {
    FetchRecord::notFetched(uri, "client certificate or key: " + reasonOf(failure));
    throw;
  }
}

void fetch(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  const std::size_t limit = NetworkBudget::admittedBytes(kMaximumCRL);
  if (limit == 0) {
    return FetchRecord::notFetched(uri, "the verification has fetched too much already");
  }
  HTTP::RefStream stream = streamFor(uri);
  const Host host(uri.hostname());
  if (host.address().empty()) return FetchRecord::notFetched(uri, "could not resolve the host");
  const HTTP::RefConnection connection(stream);
  if (!connection->connect(HTTP::endpointFor(host.address(), uri))) {
    return FetchRecord::notFetched(uri, "could not connect");
  }
  const auto start = std::chrono::steady_clock::now();
  connection->maxQueryTime(kQueryTime);
  connection->maxContent(limit);
  connection->send(request(uri));
  const int outcome = connection->receive();
  NetworkBudget::countBytes(connection->contentReceived());
  // Cut by what is left for the whole verification, and not by what a CRL may have.
  if (outcome == HTTP::Connection::kTooLarge && limit < kMaximumCRL) Shortfall::note();
  if (outcome != HTTP::Connection::kComplete) {
    const auto taken = std::chrono::steady_clock::now() - start;
    return FetchRecord::notFetched(uri, reasonOf(outcome, *connection.operator->(),
                                                 taken >= std::chrono::seconds(kQueryTime)));
  }
  if (!VerificationRun::admitDecoding(connection->content().length())) {
    return FetchRecord::notFetched(uri, "the verification has read too much already");
  }
  const RefCertificateRevocationList crl = read(uri, connection->content());
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
    // A broken cache entry is as good as none: the fetch below replaces it.
    FetchRecord::notCached(uri, "cache cannot be read: " + reasonOf(failure));
  }
  if (!crls.empty()) return;
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

}  // namespace Velantrix::Crypto::PKX509
