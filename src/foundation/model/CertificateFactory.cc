#include "foundation/base/Fail.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CertificateFactory.h>

#include <openssl/pem.h>

#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::CertificateFactory", "CertificateFactory"};

class CertificateSink : public ObjectSink {
 public:
  bool wants(std::string_view label) const override {
    return label == PEM_STRING_X509 || label == PEM_STRING_X509_OLD ||
           label == PEM_STRING_X509_TRUSTED;
  }

  bool take(std::string_view label, const unsigned char* der, std::size_t length) override {
    const ErrorScope errors;
    if (label != PEM_STRING_X509_TRUSTED) {
      if (X509* const known = VerificationRun::known(der, length)) {
        certificates_.push_back(CertificateFactory()(known, false));
        return true;
      }
    }
    // A trusted certificate is followed by OpenSSL's trust settings, which its verification heeds.
    const auto decode = label == PEM_STRING_X509_TRUSTED ? d2i_X509_AUX : d2i_X509;
    Owned<X509> decoded = decodeWhole(decode, der, length);
    if (decoded == nullptr) return false;
    certificates_.push_back(CertificateFactory()(decoded.release(), true));
    return true;
  }

  std::list<RefCertificate>& certificates() { return certificates_; }

 private:
  std::list<RefCertificate> certificates_;
};

}  // namespace

void CertificateFactory::read(const File::Path& path, std::list<RefCertificate>& certificates) {
  CertificateSink sink;
  readObjects(path, sink, kHere);
  certificates.splice(certificates.end(), sink.certificates());
}

void CertificateFactory::read(const Buffer& data, std::list<RefCertificate>& certificates) {
  CertificateSink sink;
  readObjects(data.data(), data.length(), sink);
  certificates.splice(certificates.end(), sink.certificates());
}

RefCertificate CertificateFactory::operator()(x509_st* x509, bool adopt) const {
  if (x509 == nullptr) return RefCertificate();
  Owned<X509> owner = adopt ? Owned<X509>(x509) : newReference(x509, kHere);
  return RefCertificate(new Certificate(owner.release()));
}

}  // namespace Velantrix::Crypto::PKX509
