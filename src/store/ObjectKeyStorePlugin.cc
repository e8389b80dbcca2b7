#include <pkx509/ObjectKeyStorePlugin.h>

namespace Velantrix::Crypto::PKX509 {

ObjectKeyStorePlugin::ObjectKeyStorePlugin(const RefObjectStore& objectStore)
    : store(objectStore) {}

ObjectKeyStorePlugin::~ObjectKeyStorePlugin() = default;

KeyCertificatePair ObjectKeyStorePlugin::find(const DistinguishedName& issuer,
                                              const ASN1::Integer& serial) {
  KeyCertificatePair found(true);
  const ObjectStore* const searched = store.get();
  if (searched == nullptr) return found;
  for (const RefObject& object : searched->objects()) {
    const RefCertificate& certificate = object->certificate;
    if (certificate.empty()) continue;  // a CRL or a cross-certificate pair
    if (issuer == certificate->issuer() && serial == certificate->serialNumber()) {
      found.certificate(certificate);
      break;
    }
  }
  return found;
}

RefCertificate ObjectKeyStorePlugin::findEncryptionCertificate(const EmailAddress& /*address*/) {
  return RefCertificate();
}

KeyCertificatePair ObjectKeyStorePlugin::findSigningKey(const EmailAddress& /*address*/) {
  return KeyCertificatePair(false);
}

KeyCertificatePair ObjectKeyStorePlugin::findDecryptionKey(const EmailAddress& address) {
  // A store without keys has the same answer to both.
  return ObjectKeyStorePlugin::findSigningKey(address);
}

}  // namespace Velantrix::Crypto::PKX509
