// Certificates and CRLs of the test builder as the library's own objects. It is a header only: the
// builder itself has nothing of the library.
#pragma once

#include "support/Pki.h"

#include <velantrix/Buffer.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>

#include <string>

namespace Velantrix::Test {

/// The same X509, shared.
inline Crypto::PKX509::RefCertificate handle(const Issued& issued) {
  return Crypto::PKX509::CertificateFactory()(issued.get(), false);
}

inline Crypto::PKX509::RefCertificateRevocationList handle(Owned<X509_CRL> crl) {
  return Crypto::PKX509::CertificateRevocationListFactory()(crl.release(), true);
}

/// The one that a reader of its file has.
inline Crypto::PKX509::RefCertificateRevocationList crlHandle(const CRLOptions& options) {
  const std::string content = der(makeCRL(options).get());
  return Crypto::PKX509::CertificateRevocationListFactory::read(
      Buffer(content.data(), static_cast<unsigned int>(content.size()), false));
}

}  // namespace Velantrix::Test
