/// @file
/// The process-wide answer to "can this certificate be used for that?".
///
/// @code
///   CertificateVerifier* verifier = CertificateVerifier::s_instance;
///   if (verifier == nullptr) verifier = SimpleVerifier::instance();
///   if (verifier->isValid(certificate, KU_DIGITAL_SIGNATURE, true) == X509_V_OK) ...
/// @endcode
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/Export.h>

namespace Velantrix::Crypto::PKX509 {

/// The base of the process-wide verifier.
class PKX509_EXPORT CertificateVerifier {
 public:
  CertificateVerifier();
  virtual ~CertificateVerifier();
  CertificateVerifier(const CertificateVerifier&) = delete;
  CertificateVerifier& operator=(const CertificateVerifier&) = delete;

  /// @param certificate     what to verify
  /// @param keyUsage        OpenSSL's `KU_*` bits, of which the certificate should allow one; 0
  ///                        asks for none
  /// @param requireKeyUsage whether a certificate that does not allow any of them is refused
  /// @return 0 when the certificate is valid, an `X509_V_ERR_*` code, or -1 when the key usage does
  ///         not fit or the verification could not be carried out
  virtual int isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage) = 0;

  /// The verifier of this process, null until somebody registers one. Borrowed by everybody and
  /// never freed by the library. It is a plain pointer: set it while the process has one thread.
  static CertificateVerifier* s_instance;
};

}  // namespace Velantrix::Crypto::PKX509
