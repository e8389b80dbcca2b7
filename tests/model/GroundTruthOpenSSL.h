// What OpenSSL makes of an offer: the paths of those who sign, and its own word on the whole.
#pragma once

#include "model/GroundTruthRealisation.h"
#include "revocation/SignerPaths.h"

#include <vector>

namespace Velantrix::Test::Truth {

/// OpenSSL's, with the root as the one trust anchor and all that is offered as untrusted.
class Paths : public Crypto::PKX509::Revocation::SignerPaths {
 public:
  Paths(Realisation& real, const Offer& offer) : real_(real), offer_(offer) {}

  std::vector<RefCertificate> pathOf(const RefCertificate& signer) override;

 private:
  std::vector<RefCertificate> issuersFor(const RefCertificate& signer);

  Realisation& real_;
  const Offer& offer_;
};

/// The X509_V_* code for the revocation of one certificate of the path alone, with all lists of the
/// offer, delta and indirect ones, wherever they lie.
int plainOpenSSL(Realisation& real, const Offer& offer, int depth);

}  // namespace Velantrix::Test::Truth
