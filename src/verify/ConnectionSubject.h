// For whose sake connections are opened on this thread.
//
// A stranger's certificate names the hosts that the appliance is to ask about it, and revocation is
// checked before signatures: until its own signature has been verified, the certificate may be a
// forgery whose author only wants the appliance to connect to somebody. So whoever is about to
// connect for a certificate asks here.
//
//   const ConnectionSubject subject(certificate, issuer);
//   ...
//   if (!connectionAdmitted()) return;
#pragma once

#include <velantrix/NonCopyable.h>

#include <openssl/types.h>

#include <optional>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun;

// While one certificate is checked for revocation: the certificate for which connections would be
// opened on this thread. Subjects nest as verifications do.
class ConnectionSubject : private NonCopyable {
 public:
  // Both are borrowed. The issuer is the next certificate of the chain; null where the chain ends,
  // since its end is in the trust store and no stranger's.
  ConnectionSubject(X509* certificate, X509* issuer) noexcept;
  ~ConnectionSubject();

 private:
  friend bool connectionAdmitted();
  bool isGenuine();

  X509* certificate_;
  X509* issuer_;
  const VerificationRun* run_;
  ConnectionSubject* outer_;
  std::optional<bool> genuine_;  // verified at the first connection that would be opened
};

// Whether a connection may be opened now: the certificate that is being checked is signed by the
// next one of its chain, and the verification has time left for the network. A refusal is logged
// once per certificate, and once per verification. Outside a verification nothing is refused.
bool connectionAdmitted();

}  // namespace Velantrix::Crypto::PKX509
