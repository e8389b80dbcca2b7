/// @file
/// Certificates as OpenSSL wants them handed over: a STACK_OF(X509).
///
/// @code
///   std::list<RefCertificate> intermediates;
///   CertificateFactory::read(File::Path("intermediates.pem"), intermediates);
///   RefStackOfCertificate untrusted(intermediates);
///   X509_STORE_CTX_init(ctx, store, certificate, untrusted);
/// @endcode
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>

#include <openssl/x509.h>

#include <list>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

/// Owns a stack and a reference to every certificate on it; it never changes, so that several
/// threads may read it at once.
class PKX509_EXPORT StackOfCertificate : public RefImpl {
 public:
  /// Puts the certificates on the stack in their order, the X509s themselves and no copies. Empty
  /// handles are left out.
  explicit StackOfCertificate(const std::list<RefCertificate>& certificates);

  /// Borrowed, never null; lives as long as this object.
  STACK_OF(X509) * native() const noexcept { return stack_.get(); }

 private:
  std::shared_ptr<STACK_OF(X509)> stack_;
};

/// A handle to a `StackOfCertificate`.
class PKX509_EXPORT RefStackOfCertificate : public Ref<StackOfCertificate> {
 public:
  using Ref<StackOfCertificate>::Ref;
  /// No stack at all; OpenSSL takes the null pointer for "no untrusted certificates".
  RefStackOfCertificate() noexcept = default;
  /// A new stack; see `StackOfCertificate`'s constructor.
  explicit RefStackOfCertificate(const std::list<RefCertificate>& certificates);

  /// Borrowed, for OpenSSL calls; null for an empty handle.
  operator stack_st_X509*() const noexcept { return get() == nullptr ? nullptr : get()->native(); }
};

}  // namespace Velantrix::Crypto::PKX509
