#include "foundation/base/Fail.h"
#include "foundation/model/CRLParts.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/ObjectShape.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/CertificateRevocationList.h>

#include <openssl/pem.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::CertificateRevocationListFactory",
                       "CertificateRevocationListFactory"};

// Keeps the first CRL. The others are decoded all the same, so that a damaged input is noticed,
// unless only the first is asked for.
class CRLSink : public ObjectSink {
 public:
  explicit CRLSink(bool onlyFirst = false) : onlyFirst_(onlyFirst) {}

  bool wants(std::string_view label) const override { return isCRLLabel(label); }

  bool take(std::string_view /*label*/, const unsigned char* der, std::size_t length) override {
    return keep(decodeCRL(der, length));
  }
  bool takeOctets(std::string_view /*label*/, Octets& der) override { return keep(decodeCRL(der)); }

  bool hasEnough() const override { return onlyFirst_; }

  const RefCertificateRevocationList& first() const { return first_; }

 private:
  bool keep(const RefCertificateRevocationList& crl) {
    if (crl.empty()) return false;
    if (first_.empty()) first_ = crl;
    return true;
  }

  bool onlyFirst_;
  RefCertificateRevocationList first_;
};

}  // namespace

bool isCRLLabel(std::string_view label) { return label == PEM_STRING_X509_CRL; }

RefCertificateRevocationList decodeCRL(const unsigned char* der, std::size_t length) {
  if (!ObjectKinds::possible(der, length).has(ObjectKind::kCRL)) {
    return RefCertificateRevocationList();
  }
  Octets octets;
  octets.resize(length);
  std::copy_n(der, length, octets.data());
  return decodeCRL(octets);
}

RefCertificateRevocationList decodeCRL(Octets& der) {
  if (!ObjectKinds::possible(der.data(), der.size()).has(ObjectKind::kCRL)) {
    return RefCertificateRevocationList();
  }
  const ErrorScope errors;
  if (std::unique_ptr<const CompactCRL> compact = CompactCRL::read(der)) {
    return CRLParts::make(std::move(compact));
  }
  Owned<X509_CRL> decoded = decodeWhole(d2i_X509_CRL, der.data(), der.size());
  if (decoded == nullptr) return RefCertificateRevocationList();
  return CertificateRevocationListFactory()(decoded.release(), true);
}

RefCertificateRevocationList readFirstCRL(const unsigned char* data, std::size_t length) {
  CRLSink sink(true);
  readObjects(data, length, sink);
  return sink.first();
}

RefCertificateRevocationList CertificateRevocationListFactory::read(const File::Path& path) {
  CRLSink sink;
  readObjects(path, sink, kHere);
  return sink.first();
}

RefCertificateRevocationList CertificateRevocationListFactory::read(const Buffer& data) {
  CRLSink sink;
  readObjects(data.data(), data.length(), sink);
  return sink.first();
}

RefCertificateRevocationList CertificateRevocationListFactory::operator()(X509_crl_st* crl,
                                                                          bool adopt) const {
  if (crl == nullptr) return RefCertificateRevocationList();
  Owned<X509_CRL> owner = adopt ? Owned<X509_CRL>(crl) : newReference(crl, kHere);
  return RefCertificateRevocationList(new CertificateRevocationList(owner.release()));
}

}  // namespace Velantrix::Crypto::PKX509
