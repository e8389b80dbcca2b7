/// @file
/// How CRLs and OCSP answers are fetched from the web.
///
/// @code
///   RetrievalSettings settings;
///   settings.proxy = Uri("http://proxy.example:3128");
///   settings.preferCacheableOCSP = true;
///   verifier.retrieval(settings);
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/Uri.h>

#include <chrono>

namespace Velantrix::Crypto::PKX509 {

/// A plain value. Each time is a bound of one use; what a whole verification may spend is for the
/// verifier to say.
struct PKX509_EXPORT RetrievalSettings {
  /// An HTTP proxy ("http://host:port") that all requests go through; null for none. No environment
  /// variable is looked at. The proxy is the operator's, so that no address policy applies to it; a
  /// host that is named by an address which the policy refuses is not asked for through it either. What
  /// a name resolves to is the proxy's to judge.
  Uri proxy = {};
  /// OCSP requests that fit go by GET and without a nonce (RFC 5019, 5), so that caches on the way may
  /// answer, and answers are kept in memory until their nextUpdate. Else by POST with a nonce.
  bool preferCacheableOCSP = false;
  std::chrono::milliseconds resolveTime{5'000};   ///< for the addresses of a host
  std::chrono::milliseconds connectTime{10'000};  ///< for each of them, the TLS handshake included
  std::chrono::milliseconds crlTime{15'000};      ///< for a CRL, from the first octet sent on
  std::chrono::milliseconds ocspTime{10'000};     ///< for an OCSP answer
};

}  // namespace Velantrix::Crypto::PKX509
