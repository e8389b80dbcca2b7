// Signatures by keys that no trust anchor vouches for.
//
// Who issued a CRL is found among the certificates of a path before their own signatures are
// verified. A stranger makes keys for it that take their time, sends as many as a mail holds, and
// has them tried on every CRL.
//
//   if (StrangersKeys::signedBy(crl, candidate, [&] { return isVouchedFor(candidate); })) ...
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>

#include <cstddef>
#include <functional>

namespace Velantrix::Crypto::PKX509 {

class StrangersKeys {
 public:
  // Of an RSA modulus, and of what stands for it in other keys.
  static constexpr int kMaximumBits = 8192;
  // Of a public exponent; 65537 has 17.
  static constexpr int kMaximumExponentBits = 64;
  // After how many signatures of one outermost run, what a CRL remembers not counted, it is asked who
  // vouches; and how many are verified after that for whom nobody does.
  static constexpr std::size_t kMaximumSignatures = 32;

  // Whether its key is below those bounds, as far as they have something to do with its kind.
  static bool isModest(X509* holder);

  // Whether the holder's key signed the CRL; false also where the time is over before that is known, and
  // the run has fallen short. Beyond the bounds it is used only if a trust anchor
  // vouches for the holder, which costs signatures too and so is asked only then; otherwise the
  // answer is false, and the run has fallen short. The first refusal is logged.
  static bool signedBy(const CertificateRevocationList& crl, const RefCertificate& holder,
                       const std::function<bool()>& vouchedFor);
};

}  // namespace Velantrix::Crypto::PKX509
