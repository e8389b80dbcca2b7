/// @file
/// The interface of key stores: whose certificate to encrypt to, which key signs or decrypts.
///
/// @code
///   class MyKeyStore : public KeyStorePlugin { ... };
///   KeyStorePlugin& keys = program.keyStore();   // one of those
///   RefCertificate to = keys.findEncryptionCertificate(EmailAddress("alice@example.com"));
///   KeyCertificatePair from = keys.findSigningKey(EmailAddress("bob@example.com"));
/// @endcode
#pragma once

#include <velantrix/ASN1.h>
#include <velantrix/Certificate.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/EmailAddress.h>
#include <velantrix/Export.h>
#include <velantrix/KeyCertificatePair.h>

namespace Velantrix::Crypto::PKX509 {

/// The base of every key store.
///
/// "Not found" is an empty handle or a pair without a certificate, never an exception. No store
/// checks whether a certificate that it returns is valid: that is its caller's duty. Which threads
/// may ask at once is the derived class's to say. The order of the virtual operations is part of
/// the library's binary interface.
class PKX509_EXPORT KeyStorePlugin {
 public:
  KeyStorePlugin();
  virtual ~KeyStorePlugin();
  KeyStorePlugin(const KeyStorePlugin&) = delete;
  KeyStorePlugin& operator=(const KeyStorePlugin&) = delete;

  /// The certificate with that issuer and serial number, and its key where the store has it.
  virtual KeyCertificatePair find(const DistinguishedName& issuer, const ASN1::Integer& serial) = 0;
  /// The certificate to encrypt to for mail to @p address.
  virtual RefCertificate findEncryptionCertificate(const EmailAddress& address) = 0;
  /// The key, with its certificate, that signs mail from @p address.
  virtual KeyCertificatePair findSigningKey(const EmailAddress& address) = 0;
  /// The key, with its certificate, that decrypts mail to @p address.
  virtual KeyCertificatePair findDecryptionKey(const EmailAddress& address) = 0;
};

}  // namespace Velantrix::Crypto::PKX509
