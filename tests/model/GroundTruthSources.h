// The sources of an offer.
#pragma once

#include "model/GroundTruthRealisation.h"
#include "revocation/RevocationSources.h"

#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test::Truth {

class Sources : public Crypto::PKX509::Revocation::RevocationSources {
 public:
  template <class T>
  using Offers = Crypto::PKX509::Revocation::Offers<T>;

  /// Both are borrowed.
  Sources(Realisation& real, const Offer& offer);

  Offers<RefCertificate> certificates(const Crypto::PKX509::DistinguishedName& subject) override;
  Offers<RefCertificateRevocationList> crls(const Crypto::PKX509::DistinguishedName& name) override;
  Offers<RefCertificateRevocationList> crls(const Uri& uri) override;
  Offers<std::string> ocsp(const Uri& responder, const std::string& request) override;

 private:
  Offers<RefCertificateRevocationList> listsAt(const std::string& place);

  Realisation& real_;
  const Offer& offer_;
  std::vector<std::pair<Crypto::PKX509::DistinguishedName, std::string>> directories_;
};

}  // namespace Velantrix::Test::Truth
