/// @file
/// A trust store in the place of a key store.
///
/// @code
///   store->add(certificates);   // those that came with a message
///   ObjectKeyStorePlugin keys(store);
///   const RefCertificate signer = keys.find(issuer, serial).certificate();
///   if (signer.empty()) ...     // nobody added it
/// @endcode
#pragma once

#include <pkx509/ObjectStore.h>
#include <velantrix/ASN1.h>
#include <velantrix/Certificate.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/EmailAddress.h>
#include <velantrix/Export.h>
#include <velantrix/KeyCertificatePair.h>
#include <velantrix/KeyStorePlugin.h>

namespace Velantrix::Crypto::PKX509 {

/// Finds certificates by issuer and serial number, the way CMS names signers and recipients
/// (`IssuerAndSerialNumber`, RFC 5652, 10.2.4), among the objects of a store.
///
/// **It answers one question only.** A trust store holds no keys, so no key is ever found; and the
/// operations that ask by mail address find nothing.
///
/// **Where it looks.** In the store's object list and nowhere else: lookup methods and hash
/// directories are not asked, so a certificate that the store only knows through them is not found.
/// Add what is to be found with `ObjectStore::add()`.
///
/// **What it does not check.** Whether a certificate that it finds is valid. The object list also
/// holds what strangers sent; verify before use.
///
/// **Lifetime and threads.** It holds the store, which lives at least as long. It has no state of
/// its own but reads the store's object list, which verifications append to: one thread at a time
/// uses a store and the plug-ins over it.
class PKX509_EXPORT ObjectKeyStorePlugin : public KeyStorePlugin {
 public:
  /// @param store shared, not copied: objects added later are found as well. May be empty, then
  ///              nothing is ever found.
  explicit ObjectKeyStorePlugin(const RefObjectStore& store);
  ~ObjectKeyStorePlugin() override;

  /// The first certificate in the order of the object list with that issuer and that serial number.
  /// @return a pair that always has a body and never a key; its certificate is empty when there is
  ///         none
  /// @throws Exception what the certificate model throws
  KeyCertificatePair find(const DistinguishedName& issuer, const ASN1::Integer& serial) override;
  /// Always empty.
  RefCertificate findEncryptionCertificate(const EmailAddress& address) override;
  /// Always an empty pair, one without a body.
  KeyCertificatePair findSigningKey(const EmailAddress& address) override;
  /// Always an empty pair, one without a body.
  KeyCertificatePair findDecryptionKey(const EmailAddress& address) override;

 private:
  RefObjectStore store;
};

}  // namespace Velantrix::Crypto::PKX509
