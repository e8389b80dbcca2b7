// The paths of those who sign CRLs and OCSP answers, as OpenSSL builds and verifies them.
//
//   VerifierPaths paths(context, verifiedPath, sources, {.level = 2, .moment = moment});
//   const std::vector<RefCertificate> path = paths.pathOf(signer);
#pragma once

#include "revocation/OCSPReading.h"
#include "revocation/RevocationSources.h"
#include "revocation/SignerPaths.h"

#include <openssl/x509_vfy.h>

#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class Namesakes;

class VerifierPaths : public Revocation::SignerPaths {
 public:
  struct Conditions {
    int securityLevel = 2;
    Revocation::Moment moment = {};
    // Nothing that OpenSSL found wrong in the outer path has been let pass: each of its certificates
    // has a valid path in it.
    bool verified = false;
  };

  // For the path that has been verified in the context, its trust anchor last. The context's time,
  // strictness and untrusted certificates hold for these as well; policies, names and purposes do
  // not. All but the conditions are borrowed.
  VerifierPaths(X509_STORE_CTX* context, const std::vector<RefCertificate>& path,
                Revocation::RevocationSources& sources, const Conditions& conditions);
  ~VerifierPaths() override;

  // A failure to find one is not worth a line in the log.
  std::vector<RefCertificate> pathOf(const RefCertificate& signer) override;
  std::optional<Objection> objection() const override { return objection_; }

 private:
  std::vector<RefCertificate> build(const RefCertificate& signer, Namesakes& namesakes);

  X509_STORE_CTX* outer_;
  const std::vector<RefCertificate>& path_;
  Revocation::RevocationSources& sources_;
  Conditions conditions_;
  std::optional<Objection> objection_;
};

// The level that keys and signatures of a path have to reach: the context's own, and not less than the
// one of the settings, brought into the range from 0 to 5.
int securityLevelOf(X509_STORE_CTX* context, int leastLevel) noexcept;

}  // namespace Velantrix::Crypto::PKX509
