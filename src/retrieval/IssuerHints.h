// Certificates of those who issued the CRLs of the cache, for whoever has to find out again without a
// certificate at hand that names them.
//
//   IssuerHints hints(kCRLCacheDirectory);
//   hints.remember(uri, {signer, intermediate});          // when a CRL of the URI was stored
//   for (const RefCertificate& one : hints.recall(uri))   // candidates, to be verified like any others
//
// They lie in the desk's subdirectory, one file of PEM for each URI, named by SHA-256 of its place. Whoever
// can write there can put in what he likes: nothing about them is trusted, and what makes no sense is
// passed over without a word. To lose them costs a refresh, not a verification.
#pragma once

#include "retrieval/DeskFiles.h"

#include <velantrix/Certificate.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class IssuerHints {
 public:
  static constexpr std::size_t kMaximumSize = std::size_t{64} * 1024;
  static constexpr std::size_t kMaximumCertificates = 16;

  explicit IssuerHints(const std::string& cache) : files_(cache) {}

  // In the place of what was remembered for the URI: the issuer and what may stand in its path, without the
  // trust anchor, as far as there is room. Nothing is written when it is known already.
  void remember(const Uri& uri, const std::vector<RefCertificate>& chain) const noexcept;
  // Throws std::bad_alloc.
  std::vector<RefCertificate> recall(const Uri& uri) const;

  // Where those of a URI are.
  std::string fileOf(const Uri& uri) const;

 private:
  DeskFiles files_;
};

}  // namespace Velantrix::Crypto::PKX509
