/// @file
/// The authority key identifier of a certificate or a CRL (RFC 5280, 4.2.1.1 and 5.2.1).
///
/// @code
///   const RefAuthorityKeyIdentifier authority = crl->crlInfo().authorityKeyIdentifier();
///   if (!authority.empty() && authority->keyId() != candidate->subjectKeyIdentifier()) {
///     // signed by another key of the same issuer
///   }
/// @endcode
#pragma once

#include <velantrix/ASN1.h>
#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509v3.h>

#include <memory>

namespace Velantrix::Crypto::PKX509 {

/// An immutable copy of an AuthorityKeyIdentifier. Several threads may read it at once.
class PKX509_EXPORT AuthorityKeyIdentifier : public RefImpl {
 public:
  /// Adopts @p native, which must not be null; it is freed with the object, and also when the
  /// constructor throws.
  explicit AuthorityKeyIdentifier(AUTHORITY_KEYID* native);

  /// The key identifier; empty when the extension names the issuer's certificate by its issuer and
  /// serial number only.
  ASN1::RefOctetString keyId() const { return keyId_; }

  /// Borrowed, never null; for OpenSSL's `X509_check_akid`.
  const AUTHORITY_KEYID* native() const noexcept { return native_.get(); }

 private:
  std::shared_ptr<const AUTHORITY_KEYID> native_;
  ASN1::RefOctetString keyId_;
};

/// A handle to an `AuthorityKeyIdentifier`; empty when there is none.
class PKX509_EXPORT RefAuthorityKeyIdentifier : public Ref<AuthorityKeyIdentifier> {
 public:
  using Ref<AuthorityKeyIdentifier>::Ref;
  RefAuthorityKeyIdentifier() noexcept = default;
};

}  // namespace Velantrix::Crypto::PKX509
