// Fetches as `RetrievalSettings` say: through the desk, by the client for the web as it is, into the cache
// of what was verified.
#pragma once

#include "crl/Retriever.h"
#include "retrieval/Exchange.h"
#include "retrieval/FetchDesk.h"
#include "retrieval/VerifiedCache.h"

#include <pkx509/RetrievalSettings.h>

#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class WebRetriever : public Retriever {
 public:
  // The settings are borrowed. Every verification has one of these, and most need no URI: until one is asked
  // for, nothing is allocated.
  explicit WebRetriever(const RetrievalSettings& settings) noexcept : settings_(settings) {}

  RetrievedCRLs crls(const Uri& uri) override;
  RetrievedCRLs crlsOfHost(const Uri& uri) override;
  void verified(const Uri& uri, const RefCertificateRevocationList& crl,
                const std::vector<RefCertificate>& path) noexcept override;
  bool wantsNonce() const noexcept override { return !settings_.preferCacheableOCSP; }
  std::optional<OCSPAnswer> ocsp(const Uri& responder, const std::string& request) override;
  void isOfUse(const Uri& responder, const std::string& request, const OCSPAnswer& answer,
               const Time& nextUpdate) noexcept override;
  void isOfNoUse(const Uri& responder, const std::string& request) noexcept override;

 private:
  // What hosts have sent to this object, until it has been verified.
  struct Fetched {
    Uri uri;
    RefCertificateRevocationList crl;
    VerifiedCache::Notes notes;
  };

  std::optional<VerifiedCache::Entry> readCache(const Uri& uri);
  void ask(const Uri& uri, const LW::HTTP::Validators& validators, RetrievedCRLs& answer);

  FetchDesk& desk();
  VerifiedCache& cache();

  const RetrievalSettings& settings_;
  std::optional<FetchDesk> desk_;
  std::optional<VerifiedCache> cache_;
  std::vector<Fetched> fetched_;
};

}  // namespace Velantrix::Crypto::PKX509
