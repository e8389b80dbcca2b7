// What a verifier does when OpenSSL gets no memory. This program replaces OpenSSL's allocator,
// which has to happen before OpenSSL allocates for the first time.
#include "support/StarvedOpenSSL.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <new>

namespace Velantrix::Test {
namespace {

struct Outcome {
  enum Kind { Verdict, OwnException, NoMemory } kind;
  int verdict;
};

// Constructs and verifies with the allocations failing from the one with that number on, or only
// it.
Outcome attempt(const World& world, const RefCertificate& target, bool useOpenSSL, long first,
                bool forGood) {
  const Starvation starvation(first, forGood);
  Outcome outcome{Outcome::NoMemory, 0};
  try {
    Verifier verifier(world.store, target, useOpenSSL);
    outcome = {Outcome::Verdict, verifier.isValid()};
  } catch (const Exception&) {
    outcome.kind = Outcome::OwnException;
  } catch (const std::bad_alloc&) {
  }
  Starvation::end();
  ERR_clear_error();
  return outcome;
}

int storeGetCRL(X509_STORE_CTX*, X509_CRL**, X509*) { return 0; }
int storeCertCRL(X509_STORE_CTX*, X509_CRL*, X509*) { return 1; }
int storeCheckRevocation(X509_STORE_CTX*) { return 1; }

TEST(VerifierAllocation, Allocator_IsReplaced) { EXPECT_TRUE(Starvation::possible()); }

TEST(VerifierAllocation, FailedConstruction_IsTheVerifiersExceptionAndTheStoreIsAsItWas) {
  const World world;
  X509_STORE* const store = world.store;
  static_cast<void>(
      Verifier(world.store, RefCertificate(), true));  // what is made once is made now
  X509_STORE_set_get_crl(store, storeGetCRL);
  X509_STORE_set_cert_crl(store, storeCertCRL);
  X509_STORE_set_check_revocation(store, storeCheckRevocation);
  int exceptions = 0;
  for (const bool useOpenSSL : {false, true}) {
    bool refused = true;
    for (long first = 0; refused; ++first) {
      SCOPED_TRACE(first);
      const Starvation starvation(first, true);
      try {
        const Verifier verifier(world.store, RefCertificate(), useOpenSSL);
      } catch (const Exception& e) {
        Starvation::end();
        ++exceptions;
        if (e.context() == "X509::Verifier") {
          EXPECT_EQ(e.code(), 4);
          EXPECT_STREQ(e.file(), "Verify");
          EXPECT_NE(e.line(), 0U);
        }
      } catch (const std::bad_alloc&) {
      }
      Starvation::end();
      refused = Starvation::refused();
      ERR_clear_error();
      EXPECT_EQ(X509_STORE_get_get_crl(store), storeGetCRL);
      EXPECT_EQ(X509_STORE_get_cert_crl(store), storeCertCRL);
      EXPECT_EQ(X509_STORE_get_check_revocation(store), storeCheckRevocation);
    }
  }
  EXPECT_GT(exceptions, 2);
}

TEST(VerifierAllocation, RevokedCertificate_IsNeverValid) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  world.trust(root);
  world.publish({.issuer = &root});
  world.publish({.issuer = &root,
                 .number = Serial(2),
                 .deltaBase = Serial(1),
                 .revoked = {{.serial = leaf, .reason = 1}}});
  for (const bool useOpenSSL : {false, true}) {
    // Without a failure first: it is the revocation that keeps the certificate from being valid.
    EXPECT_EQ(attempt(world, handle(leaf), useOpenSSL, 1000000, true).verdict,
              X509_V_ERR_CERT_REVOKED);
    for (const bool forGood : {false, true}) {
      long first = 0;
      do {
        const Outcome outcome = attempt(world, handle(leaf), useOpenSSL, first, forGood);
        EXPECT_TRUE(outcome.kind != Outcome::Verdict || outcome.verdict != 0)
            << "allocation " << first << (useOpenSSL ? ", OpenSSL's check" : "")
            << (forGood ? ", none after it" : "");
        ++first;
      } while (Starvation::refused() && first < 20000);
      EXPECT_GT(first, 50);  // a run makes that many allocations at the very least
    }
  }
}

// The second run makes the context anew, with what the caller had set on it.
TEST(VerifierAllocation, SecondRun_RevokedCertificateIsNeverValid) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &root});
  World world;
  world.trust(root);
  world.publish({.issuer = &root, .revoked = {{.serial = leaf, .reason = 1}}});
  int exceptions = 0;
  for (const bool useOpenSSL : {false, true}) {
    for (const bool forGood : {false, true}) {
      long first = 0;
      do {
        Verifier verifier(world.store, handle(leaf), useOpenSSL);
        ASSERT_EQ(verifier.isValid(), X509_V_ERR_CERT_REVOKED);
        const Starvation starvation(first++, forGood);
        int verdict = -1;
        try {
          verdict = verifier.isValid();
        } catch (const Exception& e) {
          Starvation::end();
          if (e.context() == "X509::Verifier") ++exceptions;
        } catch (const std::bad_alloc&) {
        }
        Starvation::end();
        ERR_clear_error();
        EXPECT_NE(verdict, 0) << "allocation " << first - 1;
        EXPECT_NE(verifier.report().code(), 0) << "allocation " << first - 1;
      } while (Starvation::refused() && first < 20000);
      EXPECT_GT(first, 50);
    }
  }
  EXPECT_GT(exceptions, 2);
}

TEST(VerifierAllocation, OnlyPolicyThatIsNotAccepted_IsNeverForgotten) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf",
                             .issuer = &root,
                             .extensions = {{"certificatePolicies", "1.2.3"}}});
  World world;
  world.trust(root);
  Verifier::Config config;
  config.policies = {"1.2.4"};
  config.flags = X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_EXPLICIT_POLICY;
  for (const bool forGood : {false, true}) {
    long first = 0;
    do {
      const Starvation starvation(first++, forGood);
      int verdict = -1;
      try {
        Verifier verifier(world.store, handle(leaf), RefStackOfCertificate(), config, false);
        Starvation::end();
        verdict = verifier.isValid();
      } catch (const std::exception&) {
      }
      Starvation::end();
      ERR_clear_error();
      EXPECT_NE(verdict, 0) << "allocation " << first - 1;
    } while (Starvation::refused());
  }
}

}  // namespace
}  // namespace Velantrix::Test
