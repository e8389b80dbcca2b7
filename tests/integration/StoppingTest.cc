// Verifications that are asked to stop, or whose deadline comes, while they wait for somebody.
#include "integration/LDAPPeer.h"
#include "integration/OCSPFixture.h"
#include "support/Stopping.h"
#include "support/Stopwatch.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/LDAPLookup.h>

#include <chrono>
#include <fcntl.h>
#include <future>
#include <memory>
#include <sys/file.h>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

class VerifierThatWaits : public OCSPIntegration {
 protected:
  using Prepare = std::function<void(Verifier&)>;

  Issued leafWith(const std::vector<std::string>& crls,
                  const std::vector<std::string>& responders = {}) const {
    CertificateOptions options{.subject = "O=Test,CN=Leaf", .issuer = &root};
    for (const std::string& uri : crls) {
      options.crlDistributionPoints.push_back({.fullNames = {"URI:" + uri}});
    }
    return responders.empty() ? issue(options) : naming(responders, options);
  }

  static std::unique_ptr<Verifier> make(bool conforming, const World& world, const Issued& leaf) {
    if (!conforming) return std::make_unique<Verifier>(world.store->clone(), handle(leaf), false);
    auto made = std::make_unique<ConformingVerifier>(world.store->clone(), handle(leaf));
    made->addressPolicy(AddressPolicy());
    return made;
  }

  /// A directory that gives no answer is an exception.
  static int verdictOf(Verifier& verifier) {
    try {
      return verifier.isValid();
    } catch (const Exception& failure) {
      EXPECT_NE(failure.asString().find("asked to stop"), std::string::npos) << failure.asString();
      return X509_V_ERR_UNABLE_TO_GET_CRL;
    }
  }

  /// Both verifiers end soon after they were asked to, for now, and say why.
  void expectToStop(const Issued& leaf, const std::string& what,
                    const std::function<void(int round)>& untilItWaits) {
    for (const bool conforming : {false, true}) {
      const auto verifier = make(conforming, world, leaf);
      Stopping stopping([&] { untilItWaits(conforming ? 2 : 1); });
      verifier->stopToken(stopping.token());
      EXPECT_EQ(verdictOf(*verifier), X509_V_ERR_UNABLE_TO_GET_CRL) << what << log.text();
      EXPECT_TRUE(stopping.wasHeardInTime()) << what << ' ' << conforming;
      const VerificationReport report = verifier->report();
      EXPECT_EQ(report.outcome(), Crypto::PKX509::Outcome::kTemporary) << report.line();
      EXPECT_NE(report.line().find("cancelled"), std::string::npos) << report.line();
    }
  }
};

TEST_F(VerifierThatWaits, AskedToStop_EndsAtOnceWhoeverItWaitsFor) {
  const FaultServer silent(Scripts::silence());
  const FaultServer slow(
      Scripts::trickle(Scripts::response(der(makeCRL({.issuer = &root}).get())), 20ms));
  const FaultServer responder(Scripts::silence());
  const auto requests = [](const FaultServer& server, int round) {
    EXPECT_TRUE(server.waitForRequests(static_cast<std::size_t>(round)));
  };
  expectToStop(leafWith({silent.url("/1.crl")}), "silent web server",
               [&](int round) { requests(silent, round); });
  expectToStop(leafWith({slow.url("/2.crl")}), "slow web server",
               [&](int round) { requests(slow, round); });
  expectToStop(leafWith({}, {responder.url()}), "silent responder",
               [&](int round) { requests(responder, round); });
  EXPECT_EQ(silent.connections().size(), 2U) << "each of them asked once";
}

TEST_F(VerifierThatWaits, AskedToStopWhileADirectoryIsSilent_EndsAtOnce) {
  std::promise<void> asked[2];
  std::atomic<std::size_t> connections = 0;
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    connection.read();
    const std::size_t number = connections++;
    if (number < 2) asked[number].set_value();
    connection.hold();
  });
  world.store->add(RefLookupMethod(
      new LDAPLookupMethod({LDAPConnection::RefServer(peer.uri()), std::string(), std::string()})));
  expectToStop(leafWith({}), "directory", [&](int round) { asked[round - 1].get_future().wait(); });
  EXPECT_EQ(connections, 2U) << "nobody was asked again";
}

TEST_F(VerifierThatWaits, AskedToStopWhileSomebodyHoldsTheCache_EndsAtOnce) {
  const std::string crl = der(makeCRL({.issuer = &root}).get());
  const int cache = ::open(kCRLCacheDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(::flock(cache, LOCK_EX), 0);
  const FaultServer server(Scripts::answer(crl));
  const Issued leaf = leafWith({server.url("/held.crl")});
  Stopping stopping([&] { EXPECT_TRUE(server.waitForEnds(1)); });
  const auto verifier = make(false, world, leaf);
  verifier->stopToken(stopping.token());
  const Stopwatch watch;
  EXPECT_EQ(verifier->isValid(), X509_V_ERR_UNABLE_TO_GET_CRL) << log.text();
  EXPECT_TRUE(stopping.wasHeardInTime());
  ::close(cache);
}

TEST_F(VerifierThatWaits, Deadline_IsOneForAllSlowHosts) {
  const FaultServer first(Scripts::silence());
  const FaultServer second(Scripts::silence());
  const Issued leaf =
      leafWith({first.url("/1.crl"), second.url("/2.crl"), first.url("/3.crl")}, {first.url()});
  for (const bool conforming : {false, true}) {
    const auto verifier = make(conforming, world, leaf);
    verifier->deadline(300ms);
    const Stopwatch watch;
    EXPECT_EQ(verifier->isValid(), X509_V_ERR_UNABLE_TO_GET_CRL) << log.text();
    EXPECT_TRUE(watch.took(300ms)) << conforming;
    const VerificationReport report = verifier->report();
    EXPECT_EQ(report.outcome(), Crypto::PKX509::Outcome::kTemporary) << report.line();
    EXPECT_NE(report.line().find("time"), std::string::npos) << report.line();
  }
}

TEST_F(VerifierThatWaits, DeadlineBeforeTheRespondersHalfOfTheNetworkTime_LeavesTimeForCRLs) {
  const FaultServer responder(Scripts::silence());
  const FaultServer server(Scripts::answer(der(makeCRL({.issuer = &root}).get())));
  for (const bool conforming : {false, true}) {
    const auto verifier =
        make(conforming, world, leafWith({server.url("/ca.crl")}, {responder.url()}));
    verifier->maxNetworkTime(1min);
    verifier->deadline(1500ms);
    const Stopwatch watch;
    EXPECT_EQ(verifier->isValid(), 0) << conforming << log.text();
    EXPECT_LT(watch.elapsed(), 1500ms);
  }
}

TEST_F(VerifierThatWaits, NetworkTimeInMilliseconds_IsHeld) {
  const FaultServer silent(Scripts::silence());
  const auto verifier = make(false, world, leafWith({silent.url("/1.crl")}));
  verifier->maxNetworkTime(200ms);
  const Stopwatch watch;
  EXPECT_EQ(verifier->isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_TRUE(watch.took(200ms));
}

}  // namespace
}  // namespace Velantrix::Test
