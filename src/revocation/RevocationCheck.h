// Whether the certificates of a verified path are revoked.
//
//   RevocationCheck check(sources, paths, settings, moment, {});
//   const std::vector<Outcome> outcomes = check.decide(path);   // by depth
//   if (outcomes.front().status == Status::kRevoked) ...
#pragma once

#include "revocation/OCSPReading.h"
#include "report/RevocationOutcome.h"
#include "revocation/RevocationSources.h"
#include "revocation/SignerPaths.h"

#include <pkx509/RevocationSettings.h>
#include <velantrix/Certificate.h>
#include <velantrix/NonCopyable.h>

#include <memory>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

class RevocationCheck : private NonCopyable {
 public:
  struct Scope {
    bool wholePath = true;  // each certificate but the trust anchor; else the first one alone
    bool useDeltas = true;  // RFC 5280, 6.3.1 (b)
    bool useOCSP = true;
  };

  // The sources, paths and settings are borrowed.
  RevocationCheck(RevocationSources& sources, SignerPaths& paths,
                  const RevocationSettings& settings, const Moment& moment, const Scope& scope);
  ~RevocationCheck();

  // The path is verified but for revocation, begins with the certificate in question and ends with its
  // trust anchor, which is not checked. It is decided from the anchor down, and no further than the
  // first certificate that is not good: nothing below it can be told. The outcomes are by depth, as
  // many as were to be checked; those that were not reached are undetermined, with code X509_V_OK.
  std::vector<Outcome> decide(const std::vector<RefCertificate>& path);

 private:
  class Run;
  std::unique_ptr<Run> run_;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
