/// @file
/// Certificate revocation lists (RFC 5280, 5): their octets with an index, or OpenSSL's X509_CRL.
///
/// @code
///   const auto crl = CertificateRevocationListFactory::read(File::Path("ca.crl"));
///   if (!crl.empty() && crl->issuedBy(ca, false) && !crl->hasUnhandledCriticalExtension()) {
///     X509_REVOKED* entry = nullptr;
///     X509_CRL_get0_by_cert(crl, &entry, certificate);
///   }
/// @endcode
///
/// **What is absent and what is broken.** What decides about the scope or the place of a CRL
/// (issuing distribution point, authority key identifier, CRL number, delta CRL indicator, the two
/// times) is decoded when the object is made. When one of them is there but cannot be decoded, or
/// stands there twice, there is no object: such a CRL must not pass for one without.
///
/// **Its form.** What is read from a file or a buffer and is plain DER is kept as the octets that were
/// signed and an index over the entries, in little more than the size of the file. OpenSSL's X509_CRL,
/// which takes six times that, is made when somebody first asks for it, by `native()` or by a conversion,
/// and stays then. The library's own checks do not ask.
///
/// **Threads.** A CRL may be read by several threads at once. Who wraps an X509_CRL must not change
/// it afterwards.
#pragma once

#include <velantrix/ASN1.h>
#include <velantrix/AuthorityKeyIdentifier.h>
#include <velantrix/Buffer.h>
#include <velantrix/Certificate.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/File.h>
#include <velantrix/IssuingDistributionPoint.h>
#include <velantrix/MediaOut.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>

namespace Velantrix::Crypto {
class CompactCRL;
}

namespace Velantrix::Crypto::PKX509 {

/// Who issued a CRL. A part of its CRL; it lives as long as that.
class PKX509_EXPORT CertificateRevocationListInfo {
 public:
  CertificateRevocationListInfo(const DistinguishedName& issuer,
                                const RefAuthorityKeyIdentifier& authorityKeyIdentifier);

  const DistinguishedName& issuer() const noexcept { return issuer_; }
  /// Empty when the CRL has none.
  RefAuthorityKeyIdentifier authorityKeyIdentifier() const { return authorityKeyIdentifier_; }

 private:
  DistinguishedName issuer_;
  RefAuthorityKeyIdentifier authorityKeyIdentifier_;
};

/// One CRL. It owns its octets or a reference to its X509_CRL, and copies nothing out of the entries.
class PKX509_EXPORT CertificateRevocationList : public RefImpl {
 public:
  /// Adopts the caller's reference to @p native, which must not be null; it is released with the
  /// object, and also when the constructor throws. `CertificateRevocationListFactory` is the usual
  /// way here.
  /// @throws Exception when the CRL is broken in the sense of the top of this file
  explicit CertificateRevocationList(X509_CRL* native);
  ~CertificateRevocationList() override;

  const CertificateRevocationListInfo& crlInfo() const noexcept { return info_; }
  ASN1::RefGeneralizedTime lastUpdate() const { return lastUpdate_; }
  /// Empty when the CRL has none.
  ASN1::RefGeneralizedTime nextUpdate() const { return nextUpdate_; }
  /// Absent when the CRL has none.
  ASN1::Integer crlNumber() const noexcept { return crlNumber_; }
  /// The number of the base that a delta CRL starts from; absent when this is no delta CRL.
  ASN1::Integer baseCRLNumber() const noexcept { return baseCRLNumber_; }
  /// True when the CRL has a delta CRL indicator.
  bool isDeltaCRL() const noexcept { return !baseCRLNumber_.isNull(); }
  /// Empty when the CRL has none, which makes it a CRL for everything that its issuer issued.
  RefIssuingDistributionPoint issuingDistributionPoint() const { return issuingDistributionPoint_; }

  /// Whether @p issuer issued this CRL.
  ///
  /// @param issuer    the candidate; an empty handle issued nothing
  /// @param namesOnly true compares names, key identifiers (`X509_check_akid`) and key usage, which
  ///                  must allow cRLSign when the candidate restricts it; false verifies the
  ///                  signature as well, through `isSignedBy()`
  bool issuedBy(const RefCertificate& issuer, bool namesOnly) const;

  /// Whether the signature is one of @p key (borrowed; null signed nothing).
  ///
  /// The answer is remembered for the eight keys asked about last, by identity and then by
  /// `EVP_PKEY_eq`: digesting a long CRL is the dearest step of a revocation check, and several
  /// steps ask. Of threads that ask about one CRL at once, one computes and the others wait for it.
  ///
  /// False as well where `signatureBy()` has no answer.
  bool isSignedBy(EVP_PKEY* key) const;
  /// The same; none where a verification that goes on on this thread was asked to stop, or came to its
  /// deadline or another of its bounds, while a CRL of more than 1 MiB was digested, or while another thread
  /// did that. Then nothing is known of the signature, and nothing is remembered.
  std::optional<bool> signatureBy(EVP_PKEY* key) const;
  /// What `isSignedBy()` would return, where it is remembered; none where it has to be computed.
  std::optional<bool> rememberedSignature(EVP_PKEY* key) const;

  /// How often a signature was really computed. A snapshot, meant for tests and diagnosis.
  std::size_t signatureChecks() const;

  /// Whether a critical extension stands in the way of using the CRL (RFC 5280, 5.2): one other
  /// than issuing distribution point, authority key identifier and delta CRL indicator, or one of
  /// an entry other than certificate issuer. Derived on the first call.
  bool hasUnhandledCriticalExtension() const;

  /// The first rule of RFC 5280, 5.1 to 5.3, that the encoding breaks, for people: a version, a time
  /// or an extension where or as it must not be. Null when it keeps them. Derived on the first call,
  /// which walks through the entries.
  const char* brokenRule() const;

  /// The number of revoked certificates listed.
  std::size_t entryCount() const noexcept;

  /// Writes the CRL as a "X509 CRL" block and flushes @p out.
  void writePEM(MediaOut& out) const;

  /// Borrowed, never null, and always the same one. It is not const because OpenSSL's functions want it
  /// so and lock what they cache in it.
  /// @throws std::bad_alloc when it is asked for first and cannot be made
  X509_CRL* native() const;

 private:
  friend struct CRLParts;
  struct Derived;

  // Owns a reference to OpenSSL's object once there is one.
  class PKX509_EXPORT Native {
   public:
    explicit Native(X509_CRL* crl) noexcept : crl_(crl) {}
    ~Native();
    Native(const Native&) = delete;
    Native& operator=(const Native&) = delete;

    X509_CRL* get() const noexcept { return crl_.load(std::memory_order_acquire); }
    void set(X509_CRL* crl) noexcept { crl_.store(crl, std::memory_order_release); }

   private:
    std::atomic<X509_CRL*> crl_;
  };

  CertificateRevocationList(X509_CRL* native, std::unique_ptr<const CompactCRL> compact);

  // Code that looks at a CRL's memory expects the pointer here, before all else.
  mutable Native crl_;
  CertificateRevocationListInfo info_;
  ASN1::RefGeneralizedTime lastUpdate_;
  ASN1::RefGeneralizedTime nextUpdate_;
  ASN1::Integer crlNumber_;
  ASN1::Integer baseCRLNumber_;
  RefIssuingDistributionPoint issuingDistributionPoint_;
  std::unique_ptr<Derived> derived_;
};

/// A handle to a `CertificateRevocationList`.
class PKX509_EXPORT RefCertificateRevocationList : public Ref<CertificateRevocationList> {
 public:
  using Ref<CertificateRevocationList>::Ref;
  RefCertificateRevocationList() noexcept = default;

  /// Borrowed, for OpenSSL calls; null for an empty handle.
  /// @throws std::bad_alloc as `CertificateRevocationList::native()`
  operator X509_crl_st*() const { return get() == nullptr ? nullptr : get()->native(); }
};

/// Makes CRLs out of files, of bytes and of OpenSSL's objects. It has no state: one object serves
/// any number of threads.
///
/// What is read is what `CertificateFactory` reads, with "X509 CRL" blocks and DER CRLs in the
/// place of certificates: an input that can be read and holds something else only gives an empty
/// handle. The whole input is read; of several CRLs the first is returned, and
/// `CertificateFactory::readAll` has all of them.
class PKX509_EXPORT CertificateRevocationListFactory {
 public:
  CertificateRevocationListFactory() = default;

  /// @throws Exception, which names the file, when it cannot be read or holds a broken CRL
  static RefCertificateRevocationList read(const File::Path& path);
  /// The same for data in memory, which is not needed afterwards.
  static RefCertificateRevocationList read(const Buffer& data);

  /// Wraps @p crl itself, not a copy: the handle converts back to the same pointer.
  /// @param crl   null makes an empty handle
  /// @param adopt true takes over the caller's reference, also when it throws; false takes a
  ///              reference of its own
  /// @throws Exception when the CRL is broken
  RefCertificateRevocationList operator()(X509_crl_st* crl, bool adopt) const;
};

}  // namespace Velantrix::Crypto::PKX509
