#include <velantrix/KeyStorePlugin.h>

#include <gtest/gtest.h>
#include <memory>

namespace Velantrix::Crypto::PKX509 {
namespace {

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

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
