/// @file
/// What a `ConformingVerifier` leaves to local policy.
///
/// @code
///   RevocationSettings settings;
///   settings.securityLevel = 3;                        // 128 bits
///   settings.ocspResponders.push_back(ourResponder);   // may speak about any certificate
///   ConformingVerifier verifier(store, certificate, untrusted, config, settings);
/// @endcode
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/Export.h>

#include <list>

namespace Velantrix::Crypto::PKX509 {

/// A plain value. Every default is the safe one; all times are in seconds.
///
/// The settings hold for the certificate, and for the issuers of CRLs and the OCSP responders whose
/// own paths are verified on the way.
struct PKX509_EXPORT RevocationSettings {
  /// OpenSSL's security level that keys and signatures have to reach, 0 to 5: 0, 80, 112, 128, 192
  /// and 256 bits (`X509_VERIFY_PARAM_set_auth_level`). Of certificates OpenSSL checks it, of CRLs
  /// and OCSP answers the library. A higher level on the verifier's context holds for the path.
  int securityLevel = 2;
  /// How far the clocks of OCSP responders may be ahead (RFC 6960, 4.2.2.1).
  unsigned int clockTolerance = 300;
  /// How old a CRL may be that does not say when the next one comes (RFC 5280, 5.1.2.5).
  unsigned int maximumCRLAge = 86400;
  /// How old an OCSP answer may be that does not say when newer information comes (RFC 6960,
  /// 4.2.2.1).
  unsigned int maximumOCSPAge = 86400;
  /// Responders that the operator trusts to speak about any certificate (RFC 6960, 4.2.2.2, 1). Their
  /// own revocation is not checked.
  std::list<RefCertificate> ocspResponders;
};

}  // namespace Velantrix::Crypto::PKX509
