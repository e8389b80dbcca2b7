/// @file
/// X.509 certificates (RFC 5280, 4), over OpenSSL's X509.
///
/// @code
///   std::list<RefCertificate> certificates;
///   CertificateFactory::read(File::Path("chain.pem"), certificates);
///   const RefCertificate& leaf = certificates.front();
///   std::cout << leaf->subject().asString() << ' ' << leaf->serialNumber() << '\n';
///   X509_check_host(leaf, "www.example.com", 0, 0, nullptr);   // a handle is an X509* to OpenSSL
/// @endcode
///
/// **What is absent and what is broken.** An extension that is not there makes an empty handle, an
/// empty list, or what RFC 5280 says for its absence. One that is there but cannot be decoded to
/// its last octet, or stands there twice (RFC 5280, 4.2 forbids it), is never taken for absent:
/// whatever asks for it throws.
///
/// **Threads.** A certificate may be read by several threads at once. Who wraps an X509 must not
/// change it afterwards.
#pragma once

#include <velantrix/ASN1.h>
#include <velantrix/AuthorityKeyIdentifier.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/Extension.h>
#include <velantrix/Key.h>
#include <velantrix/MediaOut.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509.h>

#include <list>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

class RefCertificate;

/// One certificate. It owns a reference to its X509, and says what stands in it; nothing here
/// decides whether it can be trusted.
class PKX509_EXPORT Certificate : public RefImpl {
 public:
  /// Adopts the caller's reference to @p native, which must not be null; it is released with the
  /// object, and also when the constructor throws. `CertificateFactory` is the usual way here.
  explicit Certificate(X509* native);

  const DistinguishedName& subject() const noexcept { return subject_; }
  const DistinguishedName& issuer() const noexcept { return issuer_; }
  const ASN1::Integer& serialNumber() const noexcept { return serialNumber_; }

  /// Empty when the certificate has none.
  ASN1::RefOctetString subjectKeyIdentifier() const;
  /// Empty when the certificate has none.
  RefAuthorityKeyIdentifier authorityKeyIdentifier() const;
  /// OpenSSL's `KU_*` bits. A certificate without the extension is not restricted and has every bit
  /// set (RFC 5280, 4.2.1.3); one with an extension that grants nothing has none.
  unsigned int keyUsage() const;
  /// In the order of the extension; empty when the certificate has none.
  std::list<RefCRLDistributionPoint> crlDistributionPoints() const;
  /// The extension of type @p oid, empty when the certificate has none.
  /// @throws Exception when there are two, or when @p oid is an empty handle
  RefExtension find(const ASN1::RefObjectIdentifier& oid) const;

  /// OpenSSL's `X509_self_signed` without a check of the signature: subject and issuer are the same
  /// and the key identifiers do not contradict it. False when the public key cannot be read.
  bool isSelfSigned() const;
  /// The cA bit of the basic constraints; false without the extension. The key usage plays no part.
  bool isCACert() const;

  /// Whether @p issuer issued this certificate.
  ///
  /// @param issuer    the candidate; an empty handle issued nothing
  /// @param namesOnly true compares names, key identifiers and key usage (`X509_check_issued`);
  ///                  false verifies the signature as well, which is what makes it a proof
  ///
  /// A candidate that OpenSSL cannot make sense of is not the issuer. Validity periods, and whether
  /// the issuer is a CA at all, play no part.
  bool issuedBy(const RefCertificate& issuer, bool namesOnly) const;

  /// The public key.
  /// @throws Exception when OpenSSL does not support it or it is malformed
  RefKey key() const;

  /// Writes the certificate as a "CERTIFICATE" block and flushes @p out. Trust settings that
  /// OpenSSL keeps beside a certificate are not written.
  void writePEM(MediaOut& out) const;

  /// Borrowed, never null. It is not const because OpenSSL's functions want it so and lock what
  /// they cache in it.
  X509* native() const noexcept { return x509_.get(); }

 private:
  struct PKX509_EXPORT Release {
    void operator()(X509* native) const noexcept;
  };

  // Code that looks at a certificate's memory expects the pointer here, before all else.
  std::unique_ptr<X509, Release> x509_;
  DistinguishedName subject_;
  DistinguishedName issuer_;
  ASN1::Integer serialNumber_;
};

/// A handle to a `Certificate`.
class PKX509_EXPORT RefCertificate : public Ref<Certificate> {
 public:
  using Ref<Certificate>::Ref;
  RefCertificate() noexcept = default;

  /// Borrowed, for OpenSSL calls; null for an empty handle.
  operator x509_st*() const noexcept { return get() == nullptr ? nullptr : get()->native(); }

  /// The same certificate, octet for octet (`X509_cmp`), whether or not it is the same object. Two
  /// empty handles are equal, an empty and a full one are not.
  bool operator==(const RefCertificate& other) const noexcept;
  bool operator!=(const RefCertificate& other) const noexcept { return !(*this == other); }
};

}  // namespace Velantrix::Crypto::PKX509
