#include "foundation/openssl/KnownSignatures.h"
#include "support/Pki.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using Crypto::isSignedByHolder;
using Crypto::verifiedSignatures;

class KnownSignaturesTest : public testing::Test {
 protected:
  /// How many signatures it takes to say whether the one is signed by the other's key.
  std::uint64_t verifications(const X509* certificate, const Issued& holder, bool expected) {
    const std::uint64_t before = verifiedSignatures();
    EXPECT_EQ(isSignedByHolder(const_cast<X509*>(certificate), holder.get()), expected);
    return verifiedSignatures() - before;
  }

  Issued root = issueCA("CN=Root");
  Issued leaf = issue({.subject = "CN=Leaf", .issuer = &root});
};

TEST_F(KnownSignaturesTest, RightOne_IsVerifiedOnce) {
  EXPECT_EQ(verifications(leaf.get(), root, true), 1U);
  EXPECT_EQ(verifications(leaf.get(), root, true), 0U);
  const Owned<X509> copy = certFromDer(der(leaf.get()));
  EXPECT_EQ(verifications(copy.get(), root, true), 0U) << "the octets count";
}

TEST_F(KnownSignaturesTest, WrongOne_IsVerifiedEachTime) {
  const Issued forged = issue({.subject = "CN=Leaf", .issuer = &root, .badSignature = true});
  EXPECT_EQ(verifications(forged.get(), root, false), 1U);
  EXPECT_EQ(verifications(forged.get(), root, false), 1U);
}

TEST_F(KnownSignaturesTest, RightOne_IsSoUnderItsKeyOnly) {
  const Issued namesake = issueCA("CN=Root");
  EXPECT_EQ(verifications(leaf.get(), root, true), 1U);
  EXPECT_EQ(verifications(leaf.get(), namesake, false), 1U);
  // Another certificate with that key.
  const Issued renewed = issue({.subject = "CN=Root", .ca = true, .key = root.key});
  EXPECT_EQ(verifications(leaf.get(), renewed, true), 0U);
}

TEST_F(KnownSignaturesTest, ChangedSignatureOfARightOne_IsWrong) {
  EXPECT_EQ(verifications(leaf.get(), root, true), 1U);
  std::string octets = der(leaf.get());
  octets.back() = static_cast<char>(octets.back() ^ 1);
  const Owned<X509> changed = certFromDer(octets);
  ASSERT_NE(changed, nullptr);
  EXPECT_EQ(verifications(changed.get(), root, false), 1U);
}

TEST_F(KnownSignaturesTest, ThoseUsedLast_StayAndOthersGo) {
  EXPECT_EQ(verifications(leaf.get(), root, true), 1U);
  const Issued first = issue({.subject = "CN=First", .issuer = &root});
  EXPECT_EQ(verifications(first.get(), root, true), 1U);
  for (int i = 0; i < 300; ++i) {
    const Issued other = issue({.subject = "CN=Other", .issuer = &root, .key = leaf.key});
    ASSERT_EQ(verifications(other.get(), root, true), 1U);
    ASSERT_EQ(verifications(leaf.get(), root, true), 0U) << i;
  }
  EXPECT_EQ(verifications(first.get(), root, true), 1U);
}

}  // namespace
}  // namespace Velantrix::Test
