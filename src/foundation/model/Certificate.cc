#include "foundation/base/Fail.h"
#include "foundation/model/DistributionPoints.h"
#include "foundation/model/ExtensionDecoder.h"
#include "foundation/model/PemOut.h"
#include "foundation/openssl/BitString.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/Certificate.h>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <limits>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::Certificate", "Certificate"};

}  // namespace

void Certificate::Release::operator()(X509* native) const noexcept { X509_free(native); }

// The three values are read here rather than on demand: they are cheap, every user of a certificate
// asks for one of them, and an object that never changes needs no lock.
Certificate::Certificate(X509* native) : x509_(notNull(native)) {
  // They point into the X509 and keep it, rather than copy from it.
  const std::shared_ptr<X509> whole = newReference(native, kHere);
  using Name = std::shared_ptr<const X509_NAME>;
  subject_ = DistinguishedName(Name(whole, X509_get_subject_name(native)));
  issuer_ = DistinguishedName(Name(whole, X509_get_issuer_name(native)));
  serialNumber_ =
      ASN1::Integer(std::shared_ptr<const ASN1_INTEGER>(whole, X509_get0_serialNumber(native)));
  // OpenSSL decodes what its checks need on their first use, in the object. Asking for the flags
  // makes that happen here, while one thread has it; whether they are good is for who looks at
  // them.
  const ErrorScope errors;
  static_cast<void>(X509_get_extension_flags(native));
}

ASN1::RefOctetString Certificate::subjectKeyIdentifier() const {
  return ASN1::RefOctetString(decodeOnlyExtension(X509_get0_extensions(native()),
                                                  NID_subject_key_identifier, d2i_ASN1_OCTET_STRING,
                                                  kHere.context)
                                  .get());
}

RefAuthorityKeyIdentifier Certificate::authorityKeyIdentifier() const {
  return decodeAuthorityKeyIdentifier(X509_get0_extensions(native()), kHere.context);
}

unsigned int Certificate::keyUsage() const {
  const Owned<ASN1_BIT_STRING> decoded = decodeOnlyExtension(
      X509_get0_extensions(native()), NID_key_usage, d2i_ASN1_BIT_STRING, kHere.context);
  if (decoded == nullptr) return std::numeric_limits<unsigned int>::max();
  return namedBits(decoded.get());
}

DistributionPoints::DistributionPoints(const Certificate& certificate)
    : DistributionPoints(X509_get0_extensions(certificate.native()), NID_crl_distribution_points,
                         kHere.context) {}

DistributionPoints::DistributionPoints(const STACK_OF(X509_EXTENSION) * extensions, int nid,
                                       const char* context)
    : points_(decodeOnlyExtension(extensions, nid, d2i_CRL_DIST_POINTS, context)) {
  for (int i = 0; i < count(); ++i) static_cast<void>((*this)[i]);
}

RefCRLDistributionPoint DistributionPoints::operator[](int index) const {
  return RefCRLDistributionPoint(new CRLDistributionPoint(
      std::shared_ptr<const DIST_POINT>(points_, sk_DIST_POINT_value(points_.get(), index))));
}

std::list<RefCRLDistributionPoint> Certificate::crlDistributionPoints() const {
  const DistributionPoints all(*this);
  std::list<RefCRLDistributionPoint> points;
  for (int i = 0; i < all.count(); ++i) points.push_back(all[i]);
  return points;
}

RefExtension Certificate::find(const ASN1::RefObjectIdentifier& oid) const {
  return RefExtension(onlyExtension(X509_get0_extensions(native()), oid->native(), kHere.context));
}

bool Certificate::isSelfSigned() const {
  const ErrorScope errors;
  const int result = X509_self_signed(native(), 0);
  if (result < 0 && (X509_get_extension_flags(native()) & EXFLAG_INVALID) != 0) {
    fail(kHere, "malformed extensions");
  }
  return result == 1;
}

bool Certificate::isCACert() const {
  const Owned<BASIC_CONSTRAINTS> decoded = decodeOnlyExtension(
      X509_get0_extensions(native()), NID_basic_constraints, d2i_BASIC_CONSTRAINTS, kHere.context);
  return decoded != nullptr && decoded->ca > 0;
}

bool Certificate::issuedBy(const RefCertificate& issuer, bool namesOnly) const {
  X509* candidate = issuer;
  if (candidate == nullptr) return false;
  const ErrorScope errors;
  if (X509_check_issued(candidate, native()) != X509_V_OK) return false;
  if (namesOnly) return true;
  EVP_PKEY* key = X509_get0_pubkey(candidate);
  return key != nullptr && X509_verify(native(), key) == 1;
}

RefKey Certificate::key() const {
  const ErrorScope errors;
  Owned<EVP_PKEY> key(X509_get_pubkey(native()));
  if (key == nullptr) {
    fail(kHere, "public key cannot be read");
  }
  return RefKey(new Key(key.release()));
}

void Certificate::writePEM(MediaOut& out) const {
  writeEncoded(out, kHere.context, [this](BIO* bio) { return PEM_write_bio_X509(bio, native()); });
}

bool RefCertificate::operator==(const RefCertificate& other) const noexcept {
  const X509* mine = *this;
  const X509* theirs = other;
  if (mine == nullptr || theirs == nullptr) return mine == theirs;
  if (mine == theirs) return true;
  const ErrorScope errors;
  return X509_cmp(mine, theirs) == 0;
}

}  // namespace Velantrix::Crypto::PKX509
