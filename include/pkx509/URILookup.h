/// @file
/// CRLs by the URI that a distribution point names, over http and https, with a cache on disk.
///
/// @code
///   std::list<RefCertificateRevocationList> crls;
///   URILookup().find(Uri("http://ca.example/ca.crl"), crls);
///   if (crls.empty()) ...   // nobody had it: no answer, no CRL in the answer, no such host, ...
///
///   VerificationReport report;
///   URILookup().find(Uri("http://ca.example/ca.crl"), crls, report);
///   if (crls.empty()) std::cerr << report.line() << '\n';   // which of these
/// @endcode
#pragma once

#include <pkx509/VerificationReport.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>
#include <velantrix/Uri.h>

#include <list>

namespace Velantrix::Crypto::PKX509 {

/// Fetches CRLs and keeps them in `kCRLCacheDirectory`, so that a CRL is fetched again only when
/// the cached one has run out.
///
/// **What is trusted.** Nothing: a CRL is looked at only as far as it can be decoded. Whoever can
/// answer for the host, which plain http allows to anybody on the way, chooses what is cached until
/// the nextUpdate it names; whether it is signed by somebody who may speak is for the verification
/// to find out.
///
/// **The request** is an HTTP/1.0 GET without a Host header, so a server that keeps several sites
/// apart by it cannot serve CRLs here. Query and fragment of the URI are not sent. Without a port
/// in the URI it goes to port 80, for https as well. An https server is shown the client
/// certificate of `kClientCertificateFile` and is not verified itself.
///
/// **The answer** is a CRL in DER or PEM. Of its body only the first CRL is read; what follows may be
/// anything.
///
/// **Bounds.** 5 s to resolve the host, 10 s to connect, 15 s for request and answer, 64 MiB for a
/// CRL, no redirects; inside a verification its limits for the network as well (see
/// `Verifier::maxNetworkTime`).
///
/// **The cache** is a hash directory, see `HashDirLookupMethod::add(const Uri&, ...)`. It holds at
/// most 1 GiB and 1,000 files, whatever the number of threads and processes: what has expired is
/// removed first, then the oldest. On a full disk what has expired makes room, too. Files are
/// replaced as a whole, and only by what could be read as a CRL. What a URI with dot segments in its
/// path ("/a/../b", also percent-encoded) gave is not stored: the file would be that of the URI
/// without them, which another server directory may stand behind. A cache that cannot be read or
/// written, or that another writer keeps locked for 0.3 s, costs a fetch, not the result.
///
/// **Threads.** There is no state; several threads and processes may fetch at once, and the last
/// one that finishes leaves its CRL in the cache.
class PKX509_EXPORT URILookup {
 public:
  URILookup() = default;
  virtual ~URILookup();

  /// Appends the CRLs that the cache or the network gives for @p uri.
  ///
  /// Never throws and reports nothing: nothing found is an empty list. When @p crls is not empty
  /// already, the network is not asked, whatever the list holds.
  void find(const Uri& uri, std::list<RefCertificateRevocationList>& crls);

  /// The same, and says in @p report what was asked and what came of it, in the words of a
  /// verification's: the cache and the host are its `sources()`, and why there is no CRL its decisive
  /// finding. Its `code()` is 0 where @p crls is not empty afterwards, else
  /// `X509_V_ERR_UNABLE_TO_GET_CRL`; it has no path, and its findings are about no certificate. What
  /// only costs a fetch, as a cache that cannot be written, is a finding of a valid report.
  ///
  /// @throws std::bad_alloc where there is no memory for the report; @p crls has what was found
  void find(const Uri& uri, std::list<RefCertificateRevocationList>& crls,
            VerificationReport& report);
};

}  // namespace Velantrix::Crypto::PKX509
