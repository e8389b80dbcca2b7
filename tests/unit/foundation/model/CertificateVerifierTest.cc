#include <velantrix/CertificateVerifier.h>

#include <gtest/gtest.h>

namespace Velantrix::Crypto::PKX509 {
namespace {

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
