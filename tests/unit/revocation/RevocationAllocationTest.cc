// What is understood of an OCSP answer when OpenSSL gets no memory: an exception, or nothing better
// than the truth. This program replaces OpenSSL's allocator, which has to happen before OpenSSL
// allocates for the first time.
#include "support/StarvedOpenSSL.h"
#include "unit/revocation/OCSPWorld.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <new>
#include <string>

namespace Velantrix::Test {
namespace {

/// Fails each allocation of the scenario in turn, only that one or all after it too.
template <class Scenario>
void starve(Scenario scenario) {
  ASSERT_TRUE(Starvation::possible());
  scenario();  // what is allocated once for all is allocated now
  for (const bool forGood : {false, true}) {
    bool refused = true;
    for (long first = 0; refused; ++first) {
      const Starvation starvation(first, forGood);
      try {
        scenario();
      } catch (const std::bad_alloc&) {
      }
      Starvation::end();
      ERR_clear_error();
      refused = Starvation::refused();
      ASSERT_LT(first, 20000);
    }
  }
}

TEST(RevocationAllocation, Question_IsWholeOrThrows) {
  const OCSPWorld world;
  const RefCertificate leaf = handle(world.leaf);
  const RefCertificate ca = handle(world.ca);
  starve([&] {
    const OCSPQuestion question(leaf, ca);
    const bool whole = question.request().size() == world.question.request().size();
    Starvation::end();
    EXPECT_TRUE(whole || question.request().empty());
  });
}

// One of two responses for the certificate, under another hash than the other, revokes it.
TEST(RevocationAllocation, RevokedCertificate_IsNeverGood) {
  const OCSPWorld world;
  const std::string answer = ocspAnswer({.signer = &world.ca,
                                         .singles = {{},
                                                     {.status = V_OCSP_CERTSTATUS_REVOKED,
                                                      .certificate = &world.leaf,
                                                      .issuer = &world.ca,
                                                      .digest = EVP_sha256()}},
                                         .certificates = false},
                                        world.question.request());
  ASSERT_EQ(wordFor(world.read(answer)), "revoked");
  starve([&] {
    const OCSPReading reading = world.read(answer);
    Starvation::end();
    EXPECT_TRUE(reading.refused || reading.status == OCSPReading::Status::kRevoked);
  });
}

}  // namespace
}  // namespace Velantrix::Test
