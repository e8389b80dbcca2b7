#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Pki.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateVerifier.h>
#include <velantrix/Exception.h>
#include <velantrix/KeyCertificatePair.h>
#include <velantrix/KeyStorePlugin.h>

#include <gtest/gtest.h>
#include <type_traits>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

TEST(KeyCertificatePair, WithBody_StartsEmptyAndTakesBoth) {
  const Pki::Issued issued = Pki::issueCA("CN=A");
  const RefCertificate certificate = CertificateFactory()(issued.get(), false);
  KeyCertificatePair pair(true);
  EXPECT_FALSE(pair.empty());
  EXPECT_TRUE(pair.key().empty());
  EXPECT_TRUE(pair.certificate().empty());
  pair.certificate(certificate);
  EXPECT_EQ(pair.certificate()->native(), issued.get());
  EXPECT_TRUE(pair.key().empty());
  const KeyCertificatePair copy = pair;
  pair.key(certificate->key());
  EXPECT_FALSE(pair.key().empty());
  EXPECT_TRUE(copy.key().empty());
  EXPECT_EQ(copy.certificate(), certificate);
}

TEST(KeyCertificatePair, WithoutBody_EmptyAndCannotBeSet) {
  KeyCertificatePair pair(false);
  EXPECT_TRUE(pair.empty());
  EXPECT_TRUE(pair.key().empty());
  EXPECT_TRUE(pair.certificate().empty());
  for (const bool key : {true, false}) {
    try {
      if (key) {
        pair.key(RefKey());
      } else {
        pair.certificate(RefCertificate());
      }
      ADD_FAILURE();
    } catch (const Exception& e) {
      EXPECT_EQ(e.code(), 1);
    }
  }
  EXPECT_TRUE(pair.empty());
}

TEST(Key, BothNames_AreOneClass) {
  static_assert(std::is_same_v<PKX509::Key, Crypto::Key>);
  static_assert(std::is_same_v<PKX509::RefKey, Crypto::RefKey>);
  const Pki::Issued issued = Pki::issueCA("CN=A");
  ASSERT_EQ(EVP_PKEY_up_ref(issued.key.get()), 1);
  const RefKey key(new Key(issued.key.get()));
  EXPECT_EQ(key->keyData(), issued.key.get());
}

class OneCertificateStore : public KeyStorePlugin {
 public:
  explicit OneCertificateStore(bool& gone) : gone_(gone) {}
  ~OneCertificateStore() override { gone_ = true; }
  KeyCertificatePair find(const DistinguishedName&, const ASN1::Integer&) override {
    return KeyCertificatePair(true);
  }
  RefCertificate findEncryptionCertificate(const EmailAddress&) override { return {}; }
  KeyCertificatePair findSigningKey(const EmailAddress&) override {
    return KeyCertificatePair(false);
  }
  KeyCertificatePair findDecryptionKey(const EmailAddress&) override {
    return KeyCertificatePair(false);
  }

 private:
  bool& gone_;
};

TEST(KeyStorePlugin, DerivedStore_UsedAndDeletedThroughTheBase) {
  bool gone = false;
  {
    const std::unique_ptr<KeyStorePlugin> store = std::make_unique<OneCertificateStore>(gone);
    EXPECT_FALSE(store->find(DistinguishedName(), ASN1::Integer()).empty());
    EXPECT_TRUE(store->findSigningKey(EmailAddress("a@b.example")).empty());
  }
  EXPECT_TRUE(gone);
}

class Refuser : public CertificateVerifier {
 public:
  int isValid(const RefCertificate&, int keyUsage, bool) override { return keyUsage; }
};

TEST(CertificateVerifier, Instance_NullUntilRegisteredAndNotOwned) {
  EXPECT_EQ(CertificateVerifier::s_instance, nullptr);
  Refuser mine;
  CertificateVerifier::s_instance = &mine;
  EXPECT_EQ(CertificateVerifier::s_instance->isValid(RefCertificate(), 7, true), 7);
  CertificateVerifier::s_instance = nullptr;
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
