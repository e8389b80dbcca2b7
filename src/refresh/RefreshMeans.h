// What a refresh works with: the clock, the cache, the hosts, and who may have issued a CRL.
#pragma once

#include "retrieval/Exchange.h"
#include "retrieval/VerifiedCache.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// Whose key signed a CRL.
struct CRLIssuer {
  std::vector<RefCertificate> path = {};  // of the issuer, its trust anchor last; empty for nobody
  std::string refusal = {};               // why, for people; of nobody
  bool cut = false;                       // of nobody as far as one has come; there may be one

  bool isVerified() const noexcept { return !path.empty(); }
};

// Used by one thread at a time. All of it may throw `Exception` for what files do.
class RefreshMeans : private NonCopyable {
 public:
  virtual ~RefreshMeans() = default;

  virtual Time now() const = 0;
  virtual std::optional<VerifiedCache::Entry> held(const Uri& uri) = 0;
  virtual FetchedCRL fetch(const Uri& uri, const LW::HTTP::Validators& validators) = 0;
  // What was fetched is of no use to anybody.
  virtual void withdraw(const Uri& uri) = 0;
  // Until when nobody asks the host for it.
  virtual std::optional<Time> spareUntil(const Uri& uri) = 0;
  virtual CRLIssuer issuerOf(const Uri& uri, const RefCertificateRevocationList& crl) = 0;
  virtual VerifiedCache::Stored store(const Uri& uri, const RefCertificateRevocationList& crl,
                                      const CRLIssuer& issuer,
                                      const VerifiedCache::Notes& notes) = 0;
  virtual void confirm(const Uri& uri, const LW::HTTP::Validators& asked,
                       const VerifiedCache::Notes& notes) = 0;
};

}  // namespace Velantrix::Crypto::PKX509
