// Verifications that are asked to stop, or have a deadline. What waits is tested with servers.
#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "unit/verify/World.h"

#include <pkx509/ConformingVerifier.h>

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

constexpr int kUnsettled = X509_V_ERR_UNABLE_TO_GET_CRL;

enum class Way { kOwn, kOpenSSL, kConforming };
constexpr Way kKinds[] = {Way::kOwn, Way::kOpenSSL, Way::kConforming};

std::unique_ptr<Verifier> make(Way kind, const RefObjectStore& store, const Issued& leaf,
                               int flags = Verifier::Config::kDefaultFlags) {
  Verifier::Config config;
  config.flags = flags;
  const RefStackOfCertificate none;
  if (kind == Way::kConforming) {
    return std::make_unique<ConformingVerifier>(store->clone(), handle(leaf), none, config);
  }
  return std::make_unique<Verifier>(store->clone(), handle(leaf), none, config,
                                    kind == Way::kOpenSSL);
}

class VerifierStop : public testing::Test {
 protected:
  VerifierStop() {
    world.trust(root);
    world.publish({.issuer = &root});
    world.publish({.issuer = &sub});
    world.source->certificates.push_back(handle(sub));
  }

  // Not valid, for a reason that waiting cures, and that is named.
  static void expectUnsettled(const Verifier& verifier, const std::string& resource,
                              const std::string& what) {
    const VerificationReport report = verifier.report();
    EXPECT_EQ(report.code(), kUnsettled) << what;
    EXPECT_EQ(report.outcome(), Outcome::kTemporary) << what << report.line();
    ASSERT_FALSE(report.findings().empty()) << what;
    EXPECT_EQ(report.findings().front().rule(), Rule::kBudgetSpent) << what << report.line();
    EXPECT_NE(report.line().find(resource), std::string::npos) << what << report.line();
  }

  const Issued root = issueCA("O=Test,CN=Root");
  const Issued sub = issueCA("O=Test,CN=Sub", &root);
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf", .issuer = &sub});
  World world;
  LogCapture log;
};

TEST_F(VerifierStop, NobodyAsks_IsValidWithATokenAndADeadline) {
  const std::stop_source source;
  for (const Way kind : kKinds) {
    const auto verifier = make(kind, world.store, leaf);
    verifier->stopToken(source.get_token());
    verifier->deadline(1min);
    verifier->maxTime(1min);
    verifier->maxNetworkTime(1min);
    EXPECT_EQ(verifier->isValid(), 0) << static_cast<int>(kind) << log.text();
    verifier->deadline(std::chrono::milliseconds::max());
    EXPECT_EQ(verifier->isValid(), 0) << static_cast<int>(kind) << log.text();
  }
}

TEST_F(VerifierStop, AskedBefore_LooksAtNothingAndIsTemporary) {
  std::stop_source source;
  source.request_stop();
  int queries = 0;
  world.source->onQuery = [&](Query, const DistinguishedName&) { ++queries; };
  for (const Way kind : kKinds) {
    const auto verifier = make(kind, world.store, leaf);
    verifier->stopToken(source.get_token());
    EXPECT_EQ(verifier->isValid(), kUnsettled) << log.text();
    expectUnsettled(*verifier, "cancelled", std::to_string(static_cast<int>(kind)));
  }
  EXPECT_EQ(queries, 0);
}

TEST_F(VerifierStop, AskedBeforeWithoutRevocation_IsNotValidEither) {
  std::stop_source source;
  source.request_stop();
  for (const Way kind : kKinds) {
    const auto verifier = make(kind, world.store, leaf, 0);
    EXPECT_EQ(verifier->isValid(), 0);
    verifier->stopToken(source.get_token());
    EXPECT_EQ(verifier->isValid(), kUnsettled);
  }
}

// At each query that there is: an issuer, a CRL of the root's, one of the other CA's.
TEST_F(VerifierStop, AskedWhileASourceIsAsked_IsNeverValidAndTheRestIsLeftOut) {
  for (const Way kind : kKinds) {
    for (const int flags : {Verifier::Config::kDefaultFlags, 0}) {
      int all = 0;
      for (int at = 1; at == 1 || at <= all; ++at) {
        const std::string what = std::to_string(static_cast<int>(kind)) + " " +
                                 std::to_string(flags) + " " + std::to_string(at) + "\n";
        std::stop_source source;
        int queries = 0;
        const auto count = [&](Query, const DistinguishedName&) {
          if (++queries == at) source.request_stop();
        };
        world.source->onQuery = count;
        if (at == 1) {
          EXPECT_EQ(make(kind, world.store, leaf, flags)->isValid(), 0) << log.text();
          all = queries;
          ASSERT_GT(all, 0);
          source = std::stop_source();
          queries = 0;
        }
        const auto verifier = make(kind, world.store, leaf, flags);
        verifier->stopToken(source.get_token());
        EXPECT_EQ(verifier->isValid(), kUnsettled) << what << log.text();
        EXPECT_EQ(queries, at) << what << "nobody is asked any more";
        expectUnsettled(*verifier, "cancelled", what);
      }
    }
  }
}

TEST_F(VerifierStop, WhatIsRevokedIsRevoked) {
  const Issued revoked = issue({.subject = "O=Test,CN=Revoked", .issuer = &root});
  World other;
  other.trust(root);
  other.publish({.issuer = &root, .revoked = {{.serial = revoked, .reason = 1}}});
  std::stop_source source;
  const auto verifier = make(Way::kConforming, other.store, revoked);
  verifier->stopToken(source.get_token());
  EXPECT_EQ(verifier->isValid(), X509_V_ERR_CERT_REVOKED);
  source.request_stop();
  EXPECT_EQ(verifier->report().outcome(), Outcome::kPermanent);
}

TEST_F(VerifierStop, WhatIsWrongForGood_IsNotHiddenByAStop) {
  const Issued expired = issue({.subject = "O=Test,CN=Old",
                                .issuer = &sub,
                                .notBefore = -std::chrono::hours(48),
                                .notAfter = -std::chrono::hours(24)});
  for (const Way kind : kKinds) {
    std::stop_source source;
    world.source->onQuery = [&](Query, const DistinguishedName&) { source.request_stop(); };
    const auto verifier = make(kind, world.store, expired);
    verifier->stopToken(source.get_token());
    EXPECT_NE(verifier->isValid(), 0);
    EXPECT_EQ(verifier->report().outcome(), Outcome::kPermanent) << verifier->report().line();
  }
}

TEST_F(VerifierStop, AskedAfterwards_ComesTooLate) {
  for (const Way kind : kKinds) {
    std::stop_source source;
    const auto verifier = make(kind, world.store, leaf);
    verifier->stopToken(source.get_token());
    EXPECT_EQ(verifier->isValid(), 0);
    source.request_stop();
    EXPECT_EQ(verifier->report().code(), 0);
  }
}

TEST_F(VerifierStop, DeadlineOver_IsNotValidWhateverTookTheTime) {
  for (const Way kind : kKinds) {
    const auto verifier = make(kind, world.store, leaf);
    verifier->deadline(0ms);
    EXPECT_EQ(verifier->isValid(), kUnsettled);
    expectUnsettled(*verifier, "time", std::to_string(static_cast<int>(kind)));
    verifier->deadline(-5s);
    EXPECT_EQ(verifier->isValid(), kUnsettled);
  }
  world.source->onQuery = [](Query, const DistinguishedName&) {
    while (VerificationRun::mayGoOn()) std::this_thread::sleep_for(1ms);
  };
  for (const Way kind : kKinds) {
    const auto verifier = make(kind, world.store, leaf);
    verifier->deadline(20ms);
    EXPECT_EQ(verifier->isValid(), kUnsettled);
    expectUnsettled(*verifier, "time", std::to_string(static_cast<int>(kind)));
  }
}

TEST_F(VerifierStop, ProcessorTimeInMilliseconds_IsHeld) {
  world.source->onQuery = [](Query, const DistinguishedName&) {
    while (VerificationRun::admitStep()) {
    }
  };
  for (const std::chrono::milliseconds time : {20ms, -1ms}) {
    const auto verifier = make(Way::kOwn, world.store, leaf);
    verifier->maxTime(time);
    EXPECT_NE(verifier->isValid(), 0);
    EXPECT_EQ(log.count("Verifier: the processor time is spent"), 1U) << log.text();
    log.clear();
  }
}

TEST_F(VerifierStop, ListOfTheCallers_IsNotAskedAbout) {
  std::stop_source source;
  source.request_stop();
  ConformingVerifier verifier(world.store, handle(leaf));
  verifier.stopToken(source.get_token());
  EXPECT_EQ(verifier.checkRevocationStatus({handle(leaf), handle(sub), handle(root)}), 0);
  EXPECT_EQ(verifier.contextError(), kUnsettled);
}

}  // namespace
}  // namespace Velantrix::Test
