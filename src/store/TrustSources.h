// Which certificates may end a path: those that a trusted source has, octet for octet.
//
// OpenSSL's store forgets where a certificate in it comes from, and what anybody once added to it
// stands beside the operator's own. Trusted are what a program put into it itself, the hash
// directories, and the lookup methods that say so (LookupMethod::isTrustSource).
//
//   const TrustSources sources(context);
//   if (sources.have(certificate)) ...
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/NonCopyable.h>

namespace Velantrix::Crypto::PKX509 {

// While OpenSSL's store is asked on this thread: lookup methods that are no source of trust answer no
// question for a certificate.
class OnlyTrustSources {
 public:
  OnlyTrustSources() noexcept;
  ~OnlyTrustSources();
  OnlyTrustSources(const OnlyTrustSources&) = delete;
  OnlyTrustSources& operator=(const OnlyTrustSources&) = delete;

 private:
  bool outer_;
};

class TrustSources : private NonCopyable {
 public:
  // Those of the context's store; both are borrowed. What a lookup method throws leaves the queries,
  // or is parked where OpenSSL has asked.
  explicit TrustSources(X509_STORE_CTX* context) noexcept : context_(context) {}

  bool have(X509* certificate) const;
  // The same for what the store has answered itself.
  bool mayEndPath(X509* certificate) const;
  // Every certificate with that subject, each once.
  Owned<STACK_OF(X509)> certificates(const X509_NAME* subject) const;
  // Those among them that OpenSSL would not find by itself.
  Owned<STACK_OF(X509)> overlooked(const X509_NAME* subject) const;

 private:
  X509_STORE_CTX* context_;
};

}  // namespace Velantrix::Crypto::PKX509
