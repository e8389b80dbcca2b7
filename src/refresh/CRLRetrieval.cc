#include "crl/RetrievedCRLs.h"
#include "foundation/base/NoCancellation.h"
#include "refresh/CRLIssuers.h"
#include "report/OwnRecord.h"
#include "retrieval/IssuerHints.h"
#include "retrieval/WebRetriever.h"

#include <pkx509/CRLRetrieval.h>
#include <pkx509/URILookup.h>
#include <velantrix/Exception.h>

#include <openssl/x509.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

struct CRLRetrieval::State {
  State(const RetrievalSettings& means, const std::string& trustDirectory,
        const std::list<RefCertificate>& certificates)
      : settings(means), issuers(trustDirectory, certificates) {}

  RetrievalSettings settings;
  CRLIssuers issuers;
};

namespace {

// Keeps apart what the host has sent.
class NotingRetriever : public WebRetriever {
 public:
  using WebRetriever::WebRetriever;

  RetrievedCRLs crls(const Uri& uri) override {
    RetrievedCRLs answer = WebRetriever::crls(uri);
    fetched = answer.fetched;
    return answer;
  }

  std::list<RefCertificateRevocationList> fetched = {};
};

CRLIssuer issuerOf(const CRLIssuers& issuers, const Uri& uri,
                   const RefCertificateRevocationList& crl) {
  try {
    return issuers.of(crl, IssuerHints(kCRLCacheDirectory).recall(uri));
  } catch (const Exception& failure) {
    return {.refusal = failure.stringParameter()};
  }
}

bool isHeld(const Uri& uri, const RefCertificateRevocationList& crl) {
  try {
    const std::optional<VerifiedCache::Entry> entry = VerifiedCache(kCRLCacheDirectory).read(uri);
    return entry && std::any_of(entry->crls.begin(), entry->crls.end(),
                                [&](const RefCertificateRevocationList& held) {
                                  return X509_CRL_match(held, crl) == 0;
                                });
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace

CRLRetrieval::CRLRetrieval(const RetrievalSettings& settings, const std::string& trustDirectory,
                           const std::list<RefCertificate>& certificates)
    : state_(std::make_shared<const State>(settings, trustDirectory, certificates)) {}

CRLRetrieval::Answer CRLRetrieval::find(const Uri& uri) const {
  const NoCancellation untilReturn;
  NotingRetriever retriever(state_->settings);
  const Retriever::Installed here(retriever);
  Answer answer;
  Evidence evidence;
  {
    OwnRecord record(evidence, nullptr);
    URILookup().find(uri, answer.crls);
    for (const RefCertificateRevocationList& crl : retriever.fetched) {
      CRLIssuer issuer;
      {
        // What is asked for the issuer's sake is not what was asked for the CRL.
        const OwnRecord::Pause meanwhile(&record);
        issuer = issuerOf(state_->issuers, uri, crl);
      }
      if (issuer.isVerified()) retriever.verified(uri, crl, issuer.path);
      answer.objection = std::move(issuer.refusal);
    }
  }
  answer.fetched = !retriever.fetched.empty();
  answer.held = !answer.crls.empty() && isHeld(uri, answer.crls.front());
  answer.report = reportOnCRLs(uri, !answer.crls.empty(), evidence);
  return answer;
}

}  // namespace Velantrix::Crypto::PKX509
