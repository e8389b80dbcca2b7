// For whose sake connections are opened on this thread.
//
// A stranger's certificate names the hosts that the appliance is to ask about it, and revocation is
// checked before signatures: as long as no trust anchor vouches for the certificate, it may be a
// forgery whose author only wants the appliance to connect to somebody. So whoever is about to
// connect for a certificate asks here, and whoever checks one says how that is found out.
//
//   class Checked : public ConnectionSubject { ... };  // what verifies makes one
//   const Checked subject(certificate);
//   ...
//   if (!connectionAdmitted()) return;                 // what connects asks
#pragma once

#include <velantrix/NonCopyable.h>

#include <openssl/types.h>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun;

// While one certificate is checked for revocation: the certificate for which connections would be
// opened on this thread. Subjects nest as verifications do.
class ConnectionSubject : private NonCopyable {
 public:
  // How many look-ups of CRLs a certificate gets that no trust anchor vouches for.
  static constexpr unsigned int kMaximumStrangersLookups = 32;

  // The innermost subject of the run that goes on now; null when it has none. A run that is nested
  // in the check of a certificate is about another certificate.
  static ConnectionSubject* current() noexcept;

  // Whether a trust anchor vouches for the certificate that is being checked.
  virtual bool vouched() = 0;
  // Counts one look-up of CRLs for the certificate; false when it may have no more.
  bool admitsLookup() { return ++lookups_ <= kMaximumStrangersLookups || vouched(); }
  // Whether a host may be contacted for the certificate that is being checked. Says why not in the
  // log, once.
  virtual bool admits() = 0;
  // Whether a trust anchor vouches for a certificate of the chain that is being checked: it is the
  // anchor, or every signature from it up to the anchor has been verified. False for any other
  // certificate.
  virtual bool vouchesFor(X509* certificate) = 0;

 protected:
  ConnectionSubject() noexcept;
  ~ConnectionSubject();

 private:
  const VerificationRun* run_;
  ConnectionSubject* outer_;
  unsigned int lookups_ = 0;
};

// Whether a connection may be opened now: a trust anchor vouches for the certificate that is being
// checked, and the verification has time left for the network. A refusal is logged once per
// certificate, and once per verification. Outside a verification nothing is refused.
bool connectionAdmitted();

// Whether what goes on now is for a certificate that no trust anchor vouches for. False where
// nothing goes on.
bool isForStranger();

// Whether a trust anchor is known to vouch for the certificate in what goes on now; false as long
// as there is no chain to say so, and where nothing goes on.
bool isVouchedFor(X509* certificate);

}  // namespace Velantrix::Crypto::PKX509
