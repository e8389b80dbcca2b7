// The means of a refresh as they are: the machine's clock, its cache of CRLs, the web.
//
//   WebMeans means(settings);
//   const WebMeans::Bounds bounds(settings, deadline, stop);   // holds for this thread
//   Refresher(means, terms).refresh(uri);
#pragma once

#include "foundation/run/VerificationRun.h"
#include "refresh/CRLIssuers.h"
#include "refresh/RefreshMeans.h"
#include "retrieval/FetchDesk.h"
#include "retrieval/IssuerHints.h"
#include "retrieval/VerifiedCache.h"

#include <pkx509/CRLRefresh.h>

#include <string>

namespace Velantrix::Crypto::PKX509 {

class WebMeans : public RefreshMeans {
 public:
  // The settings are borrowed.
  WebMeans(const RefreshSettings& settings, const std::string& cache);

  Time now() const override { return Time::now(); }
  std::optional<VerifiedCache::Entry> held(const Uri& uri) override;
  FetchedCRL fetch(const Uri& uri, const LW::HTTP::Validators& validators) override;
  void withdraw(const Uri& uri) override;
  std::optional<Time> spareUntil(const Uri& uri) override;
  CRLIssuer issuerOf(const Uri& uri, const RefCertificateRevocationList& crl) override;
  VerifiedCache::Stored store(const Uri& uri, const RefCertificateRevocationList& crl,
                              const CRLIssuer& issuer, const VerifiedCache::Notes& notes) override;
  void confirm(const Uri& uri, const LW::HTTP::Validators& asked,
               const VerifiedCache::Notes& notes) override;

 private:
  const RefreshSettings& settings_;
  FetchDesk desk_;
  VerifiedCache cache_;
  IssuerHints hints_;
  CRLIssuers issuers_;
};

}  // namespace Velantrix::Crypto::PKX509
