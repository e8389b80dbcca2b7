// Makes a world and what is offered of it real, and asks the library.
//
//   Realisation real(world);
//   const std::vector<Outcome> outcomes = real.decide(offer);
//
// What the authorities themselves have made is made once, when it is first needed.
#pragma once

#include "model/GroundTruthWorld.h"
#include "revocation/RevocationCheck.h"
#include "support/Handles.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test::Truth {

using Crypto::PKX509::RefCertificate;
using Crypto::PKX509::RefCertificateRevocationList;

class Realisation {
 public:
  explicit Realisation(const World& world) : world_(world), now_(std::time(nullptr)) {}

  /// By depth.
  std::vector<Crypto::PKX509::Revocation::Outcome> decide(const Offer& offer);

  /// Whether the bounds of a verification were too narrow for the last one.
  bool fellShort() const { return fellShort_; }

  /// Forgets what was added to the world since it was made.
  void forget();

  const World& world() const { return world_; }
  RefCertificate certificate(int index);
  RefCertificateRevocationList list(int index);
  std::string answer(const Answer& description, const std::string& request);
  /// Whether the first has signed the second, of the certificates that are certificate()'s.
  bool signedBy(X509* issuer, X509* certificate);
  Minutes minutesOf(std::int64_t time) const { return static_cast<Minutes>((time - now_) / 60); }
  std::time_t timeOf(Minutes minutes) const { return now_ + std::time_t{minutes} * 60; }

 private:
  const Issued& issued(int index);
  When when(Minutes minutes) const { return When::at(timeOf(minutes)); }

  const World& world_;
  std::time_t now_;
  bool fellShort_ = false;
  std::map<int, Issued> issued_;
  std::map<int, RefCertificate> certificates_;
  std::map<int, RefCertificateRevocationList> lists_;
  std::map<std::pair<X509*, X509*>, bool> signatures_;
};

}  // namespace Velantrix::Test::Truth
