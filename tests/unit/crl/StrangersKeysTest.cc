#include "crl/StrangersKeys.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "support/Handles.h"
#include "support/LogCapture.h"
#include "support/Pki.h"
#include "support/PublicKeys.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

class StrangersKeysTest : public testing::Test {
 protected:
  RefCertificate holderOf(const std::shared_ptr<EVP_PKEY>& key) const {
    return handle(issue({.subject = "CN=Holder", .issuer = &root, .ca = true, .key = key}));
  }

  static bool never() {
    ADD_FAILURE() << "it was asked who vouches";
    return false;
  }

  const Issued root = issueCA("CN=Root");
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  LogCapture log;
};

constexpr char kRefused[] =
    "Verifier: too many keys, or too large ones, of certificates that no trust anchor";

TEST_F(StrangersKeysTest, RightKey_IsRecognisedAndNobodyIsAskedWhoVouches) {
  const VerificationRun run(nullptr);
  EXPECT_TRUE(StrangersKeys::signedBy(*crl.get(), handle(root), never));
  EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holderOf(makeKey()), never));
  EXPECT_FALSE(run.fellShort());
  EXPECT_EQ(log.text(), "");
}

TEST_F(StrangersKeysTest, LargeKeys_AreUsedOnlyWhereSomebodyVouchesForThem) {
  struct KeyRow {
    const char* name;
    int bits;
    int exponentBits;
    bool used;
  };
  const KeyRow rows[] = {{"usual", 2048, 17, true},
                         {"largest modulus", 8192, 17, true},
                         {"modulus too large", 8200, 17, false},
                         {"largest exponent", 2048, 64, true},
                         {"exponent too large", 2048, 65, false}};
  for (const KeyRow& row : rows) {
    SCOPED_TRACE(row.name);
    log.clear();
    const RefCertificate holder = holderOf(publicRsaKey(row.bits, row.exponentBits));
    const VerificationRun run(nullptr);
    const std::size_t before = crl->signatureChecks();
    EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holder, [] { return false; }));
    EXPECT_EQ(crl->signatureChecks() - before, row.used ? 1U : 0U);
    EXPECT_EQ(run.fellShort(), !row.used);
    EXPECT_EQ(log.count(kRefused), row.used ? 0U : 1U);
    EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holder, [] { return true; }));
    EXPECT_EQ(crl->signatureChecks() - before, 1U);
  }
}

TEST_F(StrangersKeysTest, OutsideAVerification_NothingIsRefused) {
  const std::size_t before = crl->signatureChecks();
  EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holderOf(publicRsaKey(8200, 17)), never));
  EXPECT_EQ(crl->signatureChecks() - before, 1U);
}

TEST_F(StrangersKeysTest, Signatures_AreCountedOverTheRunUntilSomebodyHasToVouch) {
  const VerificationRun run(nullptr);
  {
    const VerificationRun nested(nullptr);
    const RefCertificate first = holderOf(makeKey());
    for (int i = 0; i < 9; ++i) {
      // The CRL remembers it, so it counts once.
      EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), first, never));
    }
    for (int i = 1; i < 32; ++i) {
      EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holderOf(makeKey()), never));
    }
  }
  EXPECT_FALSE(run.fellShort());
  for (int i = 0; i < 40; ++i) {
    EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holderOf(makeKey()), [] { return true; }));
  }
  for (int i = 0; i < 32; ++i) {
    EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holderOf(makeKey()), [] { return false; }));
  }
  EXPECT_FALSE(run.fellShort());
  const std::size_t before = crl->signatureChecks();
  const auto nobody = [] { return false; };
  EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), handle(root), nobody)) << "right, but too late";
  EXPECT_FALSE(StrangersKeys::signedBy(*crl.get(), holderOf(makeKey()), nobody));
  EXPECT_EQ(crl->signatureChecks(), before);
  EXPECT_TRUE(run.fellShort());
  EXPECT_EQ(log.count(kRefused), 1U);
  EXPECT_TRUE(StrangersKeys::signedBy(*crl.get(), handle(root), [] { return true; }));
}

}  // namespace
}  // namespace Velantrix::Test
