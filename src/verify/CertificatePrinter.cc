#include <pkx509/Verifier.h>
#include <velantrix/AuthorityKeyIdentifier.h>
#include <velantrix/CertificateFactory.h>

#include <iostream>

namespace Velantrix::Crypto::PKX509 {

std::ostream& operator<<(std::ostream& out, const RefCertificate& certificate) {
  if (certificate.empty()) return out;
  out << certificate->subject().asString() << " / " << certificate->issuer().asString() << '\n';
  const ASN1::RefOctetString keyId = certificate->subjectKeyIdentifier();
  if (keyId.empty()) return out;
  const RefAuthorityKeyIdentifier authority = certificate->authorityKeyIdentifier();
  if (authority.empty()) {
    out << '\t' << keyId << " /";
  } else if (const ASN1::RefOctetString authorityKeyId = authority->keyId();
             !authorityKeyId.empty()) {
    out << '\t' << keyId << " / " << authorityKeyId;
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const std::list<RefCertificate>& certificates) {
  // Lists have always gone to standard output; tools that collect it rely on that.
  for (const RefCertificate& certificate : certificates) std::cout << certificate << '\n';
  return out;
}

std::ostream& operator<<(std::ostream& out, X509* certificate) {
  return out << CertificateFactory()(certificate, false);
}

std::ostream& operator<<(std::ostream& out, STACK_OF(X509) * certificates) {
  out << '\n';
  for (int i = 0; i < sk_X509_num(certificates); ++i) {
    operator<<(out, sk_X509_value(certificates, i)) << std::endl;
  }
  return out;
}

}  // namespace Velantrix::Crypto::PKX509
