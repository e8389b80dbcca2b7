/// @file
/// A public or private key.
///
/// @code
///   const RefKey key = responder->key();
///   ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA), algorithm, signature, data, key->keyData());
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>

#include <openssl/evp.h>

#include <memory>

namespace Velantrix::Crypto {

/// Owns one reference to an OpenSSL key. Several threads may use it at once, as OpenSSL allows for
/// an EVP_PKEY that nobody changes.
class PKX509_EXPORT Key : public RefImpl {
 public:
  /// Adopts the caller's reference to @p key, which must not be null.
  explicit Key(EVP_PKEY* key);

  /// Borrowed, never null; lives as long as this object.
  EVP_PKEY* keyData() const noexcept { return key_.get(); }

 private:
  std::shared_ptr<EVP_PKEY> key_;
};

/// A handle to a `Key`.
class PKX509_EXPORT RefKey : public Ref<Key> {
 public:
  using Ref<Key>::Ref;
  RefKey() noexcept = default;
};

namespace PKX509 {
using Crypto::Key;
using Crypto::RefKey;
}  // namespace PKX509

}  // namespace Velantrix::Crypto
