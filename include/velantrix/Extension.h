/// @file
/// One extension of a certificate, undecoded.
///
/// @code
///   const RefExtension found = certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1"));
///   if (!found.empty()) {
///     RefAuthorityInformationAccess access(found);
///   }
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509.h>

#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// An immutable copy of an X509_EXTENSION, which outlives the certificate. Several threads may read
/// it at once.
class PKX509_EXPORT Extension : public RefImpl {
 public:
  /// Copies @p native, which must not be null and stays the caller's.
  /// @throws Exception when OpenSSL cannot copy it
  explicit Extension(const X509_EXTENSION* native);

  /// The dotted form of the extension's type.
  std::string oid() const;
  bool critical() const noexcept;
  /// Borrowed, never null.
  const X509_EXTENSION* native() const noexcept { return native_.get(); }

 private:
  std::shared_ptr<const X509_EXTENSION> native_;
};

/// A handle to an `Extension`; empty when a certificate has no such extension.
class PKX509_EXPORT RefExtension : public Ref<Extension> {
 public:
  using Ref<Extension>::Ref;
  RefExtension() noexcept = default;
  /// Copies @p native; null makes an empty handle.
  explicit RefExtension(const X509_EXTENSION* native);
};

}  // namespace Velantrix::Crypto::PKX509
