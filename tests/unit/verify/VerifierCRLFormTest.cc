// Who has OpenSSL's object of a CRL made, and that nothing depends on it.
#include "foundation/model/CRLParts.h"
#include "unit/verify/BothVerifiers.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

enum class By { kVerifier, kConforming, kOpenSSL };

// Verdict and report by a new store with these CRLs.
class VerifierCRLForm : public testing::Test {
 protected:
  std::string verdict(By by, const Issued& leaf) {
    RefObjectStore store = world.store->clone();
    store->add(
        RefObject(handle(inter)));  // as what came with a message, for the issuer of its CRLs
    Verifier classic(store, handle(leaf), stackOf({inter}), by == By::kOpenSSL);
    ConformingVerifier conforming(store, handle(leaf), stackOf({inter}));
    Verifier& verifier = by == By::kConforming ? conforming : classic;
    const int code = verifier.isValid();
    return std::to_string(code) + " " + verifier.report().line();
  }
  bool isMade() const {
    for (const RefCertificateRevocationList& crl : world.source->crls) {
      if (CRLParts::nativeOf(*crl.get()) != nullptr) return true;
    }
    return false;
  }
  Issued person() const { return issue({.subject = "CN=Person", .issuer = &inter}); }

  World world;
  const Issued root = issueCA("CN=Root");
  const Issued inter = issueCA("CN=Inter", &root);
};

TEST_F(VerifierCRLForm, OwnChecksAndReports_MakeNone) {
  world.trust(root);
  const Issued good = person();
  const Issued revoked = person();
  const Issued back = person();
  world.publish({.issuer = &root});
  world.publish(
      {.issuer = &inter, .revoked = {{.serial = revoked, .reason = 1}, {.serial = back}}});
  world.publish({.issuer = &inter,
                 .number = Serial(2),
                 .deltaBase = Serial(1),
                 .revoked = {{.serial = back, .reason = 8}}});
  for (const By by : {By::kVerifier, By::kConforming}) {
    EXPECT_TRUE(verdict(by, good).starts_with("0 ")) << verdict(by, good);
    EXPECT_TRUE(verdict(by, revoked).starts_with("23 ")) << verdict(by, revoked);
    EXPECT_TRUE(verdict(by, back).starts_with("0 ")) << verdict(by, back);
  }
  EXPECT_FALSE(isMade());
}

TEST_F(VerifierCRLForm, ListsThatDoNotCount_MakeNoneEither) {
  world.trust(root);
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter, .badSignature = true});
  world.publish({.issuer = &inter, .nextUpdate = When(std::chrono::hours(-1))});
  world.publish(
      {.issuer = &inter, .revoked = {{.serial = 1, .extensions = {{"2.999.1", true, "x"}}}}});
  for (const By by : {By::kVerifier, By::kConforming}) {
    const std::string said = verdict(by, person());
    EXPECT_FALSE(said.starts_with("0 ")) << said;
  }
  EXPECT_FALSE(isMade());
}

TEST_F(VerifierCRLForm, OpenSSLsCheck_MakesIt) {
  world.trust(root);
  const Issued revoked = person();
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter, .revoked = {{.serial = revoked}}});
  EXPECT_TRUE(verdict(By::kOpenSSL, revoked).starts_with("23 "));
  EXPECT_TRUE(isMade());
}

// The same lists wrapped around OpenSSL's objects.
TEST_F(VerifierCRLForm, EitherForm_GivesTheSameVerdictsAndLines) {
  world.trust(root);
  const Issued good = person();
  const Issued revoked = person();
  world.publish({.issuer = &root});
  world.publish({.issuer = &inter,
                 .revoked = {{.serial = revoked, .reason = 4},
                             {.serial = 1, .extensions = {{"2.999.1", false, "x"}}}}});
  for (const By by : {By::kVerifier, By::kConforming, By::kOpenSSL}) {
    for (const Issued& leaf : {good, revoked}) {
      const std::string compact = verdict(by, leaf);
      const auto lists = world.source->crls;
      for (RefCertificateRevocationList& crl : world.source->crls) {
        crl = handle(crlFromDer(der(crl->native())));
      }
      EXPECT_EQ(verdict(by, leaf), compact);
      world.source->crls = lists;
    }
  }
}

}  // namespace
}  // namespace Velantrix::Test
