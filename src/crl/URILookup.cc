#include "crl/CRLCache.h"
#include "foundation/base/DotSegments.h"
#include "foundation/base/Log.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/ConnectionSubject.h"
#include "store/LookupMemory.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>

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

void fetch(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  const std::size_t limit = NetworkBudget::admittedBytes(kMaximumCRL);
  if (limit == 0) return;
  HTTP::RefStream stream = HTTP::streamFor(uri, {kClientCertificateFile, kClientKeyFile});
  const Host host(uri.hostname());
  if (host.address().empty()) return;
  const HTTP::RefConnection connection(stream);
  if (!connection->connect(HTTP::endpointFor(host.address(), uri))) return;
  connection->maxQueryTime(kQueryTime);
  connection->maxContent(limit);
  connection->send(request(uri));
  const int outcome = connection->receive();
  NetworkBudget::countBytes(connection->contentReceived());
  // Cut by what is left for the whole verification, and not by what a CRL may have.
  if (outcome == HTTP::Connection::kTooLarge && limit < kMaximumCRL) Shortfall::note();
  if (outcome != HTTP::Connection::kComplete) return;
  const LW::Buffer& body = connection->content();
  const RefCertificateRevocationList crl = readFirstCRL(body.data(), body.length());
  if (!crl.empty()) crls.push_back(crl);
}

// A cache that cannot be written costs a fetch next time, not the result.
void cache(const Uri& uri, const std::list<RefCertificateRevocationList>& crls) {
  try {
    CRLCache(kCRLCacheDirectory).add(uri, crls);
  } catch (const std::bad_alloc&) {
    Shortfall::note();
  } catch (const std::exception&) {
  }
}

}  // namespace

URILookup::~URILookup() = default;

void URILookup::find(const Uri& uri, std::list<RefCertificateRevocationList>& crls) {
  if (uri.isNull()) return;
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
  } catch (const std::exception&) {
    // A broken cache entry is as good as none: the fetch below replaces it.
  }
  if (!crls.empty()) return;
  try {
    if (!HTTP::isHandled(uri)) {
      log(kPriorityDebug, "Crypto::URILookup. Scheme not handled. " + uri.asString());
      return;
    }
    askOnce(kHosts, requestKey(uri), crls, [&](std::list<RefCertificateRevocationList>& found) {
      if (!connectionAdmitted()) return false;
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
