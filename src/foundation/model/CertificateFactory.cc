#include "foundation/base/Fail.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/ObjectShape.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CertificateFactory.h>

#include <openssl/pem.h>

#include <string>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::CertificateFactory", "CertificateFactory"};

class CertificateSink : public ObjectSink {
 public:
  bool wants(std::string_view label) const override { return isCertificateLabel(label); }

  bool take(std::string_view label, const unsigned char* der, std::size_t length) override {
    const RefCertificate certificate = decodeCertificate(label, der, length);
    if (certificate.empty()) return false;
    certificates_.push_back(certificate);
    return true;
  }

  std::list<RefCertificate>& certificates() { return certificates_; }

 private:
  std::list<RefCertificate> certificates_;
};

class ItemSink : public ObjectSink {
 public:
  bool wants(std::string_view label) const override {
    return isCertificateLabel(label) || isCRLLabel(label);
  }

  bool take(std::string_view label, const unsigned char* der, std::size_t length) override {
    return takeItem(label, der, length, [&] { return decodeCRL(der, length); });
  }
  bool takeOctets(std::string_view label, Octets& der) override {
    return takeItem(label, der.data(), der.size(), [&] { return decodeCRL(der); });
  }

  void refuse(const std::string& reason) override { items_.emplace_back().problem = reason; }

  std::list<CertificateFactory::Item>& items() { return items_; }

 private:
  template <class DecodeCRL>
  bool takeItem(std::string_view label, const unsigned char* der, std::size_t length,
                const DecodeCRL& decode) {
    try {
      CertificateFactory::Item item;
      if (!isCRLLabel(label)) item.certificate = decodeCertificate(label, der, length);
      if (!isCertificateLabel(label) && item.certificate.empty()) item.crl = decode();
      if (item.certificate.empty() && item.crl.empty()) return false;
      items_.push_back(item);
    } catch (const Exception& e) {
      refuse(e.stringParameter().empty() ? e.what() : e.stringParameter());
    }
    return true;
  }

  std::list<CertificateFactory::Item> items_;
};

}  // namespace

bool isCertificateLabel(std::string_view label) {
  return label == PEM_STRING_X509 || label == PEM_STRING_X509_OLD ||
         label == PEM_STRING_X509_TRUSTED;
}

RefCertificate decodeCertificate(std::string_view label, const unsigned char* der,
                                 std::size_t length, Decoding decoding) {
  if (!ObjectKinds::possible(der, length).has(ObjectKind::kCertificate)) return RefCertificate();
  const ErrorScope errors;
  if (decoding == Decoding::kAny && label != PEM_STRING_X509_TRUSTED) {
    if (X509* const known = VerificationRun::known(der, length)) {
      return CertificateFactory()(known, false);
    }
  }
  // A trusted certificate is followed by OpenSSL's trust settings, which its verification heeds.
  const auto decode = label == PEM_STRING_X509_TRUSTED ? d2i_X509_AUX : d2i_X509;
  Owned<X509> decoded = decodeWhole(decode, der, length);
  if (decoded == nullptr) return RefCertificate();
  return CertificateFactory()(decoded.release(), true);
}

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

std::list<CertificateFactory::Item> CertificateFactory::readAll(const Buffer& data) {
  ItemSink sink;
  readObjects(data.data(), data.length(), sink);
  return std::move(sink.items());
}

RefCertificate CertificateFactory::operator()(x509_st* x509, bool adopt) const {
  if (x509 == nullptr) return RefCertificate();
  Owned<X509> owner = adopt ? Owned<X509>(x509) : newReference(x509, kHere);
  return RefCertificate(new Certificate(owner.release()));
}

}  // namespace Velantrix::Crypto::PKX509
