// What a verification may do on the network.
//
// A stranger's certificate may name a thousand hosts that never answer, or answer with endless
// CRLs, and revocation is checked before signatures: until its own signature has been verified, the
// certificate may be a forgery whose author only wants the appliance to connect to somebody. So
// whoever is about to use the network asks here. Outside a verification nothing is refused.
#pragma once

#include <openssl/types.h>

#include <chrono>
#include <cstddef>
#include <optional>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun;

// While one certificate is checked for revocation: the certificate for which connections would be
// opened on this thread. Subjects nest as verifications do.
class ConnectionSubject {
 public:
  // Both are borrowed. The issuer is the next certificate of the chain; null where the chain ends,
  // since its end is in the trust store and no stranger's.
  ConnectionSubject(X509* certificate, X509* issuer) noexcept;
  ~ConnectionSubject();
  ConnectionSubject(const ConnectionSubject&) = delete;
  ConnectionSubject& operator=(const ConnectionSubject&) = delete;

 private:
  friend bool networkAdmitted();
  bool isGenuine();

  X509* certificate_;
  X509* issuer_;
  const VerificationRun* run_;
  ConnectionSubject* outer_;
  std::optional<bool> genuine_;  // verified at the first connection that would be opened
};

// Whether a connection may be opened now: the certificate that is being checked is signed by the
// next one of its chain, and the verification has time left for the network. A refusal is logged
// once per certificate, and once per verification.
bool networkAdmitted();

// The second half of that alone, for hosts that the operator named and no certificate.
bool networkTimeAdmitted();

// One blocking use of the network. What it takes counts against the outermost verification.
class NetworkTimer {
 public:
  using Clock = std::chrono::steady_clock;

  // `bound` is the use's own limit.
  explicit NetworkTimer(Clock::duration bound);
  ~NetworkTimer();
  NetworkTimer(const NetworkTimer&) = delete;
  NetworkTimer& operator=(const NetworkTimer&) = delete;

  // When the use has to end; not later than its start when no time is left.
  Clock::time_point deadline() const noexcept { return deadline_; }
  bool expired() const { return Clock::now() >= deadline_; }

 private:
  Clock::time_point start_;
  Clock::time_point deadline_;
};

// The bytes of CRLs that one outermost verification reads from the network.
inline constexpr std::size_t kMaximumCRLBytes = std::size_t{128} * 1024 * 1024;

// How many bytes of a CRL may be read now, at most `wanted`. Zero is logged once per verification.
std::size_t admittedCRLBytes(std::size_t wanted);
// Counts what was read, whether or not it was of use.
void countCRLBytes(std::size_t bytes) noexcept;

}  // namespace Velantrix::Crypto::PKX509
