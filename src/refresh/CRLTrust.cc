#include "refresh/CRLIssuers.h"
#include "retrieval/IssuerHints.h"

#include <pkx509/CRLTrust.h>

namespace Velantrix::Crypto::PKX509 {

struct CRLTrust::State {
  State(const std::string& trustDirectory, const std::list<RefCertificate>& certificates)
      : issuers(trustDirectory, certificates) {}

  CRLIssuers issuers;
  IssuerHints hints{kCRLCacheDirectory};
};

CRLTrust::CRLTrust(const std::string& trustDirectory, const std::list<RefCertificate>& certificates)
    : state_(std::make_shared<const State>(trustDirectory, certificates)) {}

std::string CRLTrust::objection(const Uri& uri, const RefCertificateRevocationList& crl) const {
  return state_->issuers.of(crl, state_->hints.recall(uri)).refusal;
}

}  // namespace Velantrix::Crypto::PKX509
