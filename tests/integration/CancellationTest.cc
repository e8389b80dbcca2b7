// Threads that are cancelled while they wait for a server.
#include "integration/LDAPPeer.h"
#include "integration/OCSPFixture.h"
#include "support/Stopwatch.h"

#include <pkx509/LDAPLookup.h>
#include <pkx509/URILookup.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <pthread.h>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

/// What becomes of a call that is cancelled in a thread of its own.
struct Outcome {
  bool returned;   ///< the call came back to its caller
  bool cancelled;  ///< the thread ended as one that was cancelled
};

class Cancellation : public OCSPIntegration {
 protected:
  /// Cancels the thread when the call is known to wait, and lets servers answer after that.
  Outcome cancel(const std::function<void()>& call, const std::function<void()>& untilItWaits) {
    struct Frame {
      const std::function<void()>& call;
      std::atomic<bool> returned = false;
    } frame{call};
    const auto body = [](void* argument) -> void* {
      auto& self = *static_cast<Frame*>(argument);
      self.call();
      self.returned = true;
      ::pthread_testcancel();
      return nullptr;
    };
    pthread_t thread{};
    EXPECT_EQ(::pthread_create(&thread, nullptr, body, &frame), 0);
    untilItWaits();
    EXPECT_EQ(::pthread_cancel(thread), 0);
    answer_.set_value();
    void* result = nullptr;
    EXPECT_EQ(::pthread_join(thread, &result), 0);
    return {frame.returned, result == PTHREAD_CANCELED};
  }

  /// For servers: until the thread has been cancelled.
  void untilCancelled() const { static_cast<void>(cancelled_.wait_for(10s)); }

 private:
  std::promise<void> answer_;
  std::shared_future<void> cancelled_{answer_.get_future()};
};

TEST_F(Cancellation, SilentServer_TheVerdictComesInTimeAndThenTheThreadIsCancelled) {
  const FaultServer server(Scripts::silence());
  const Issued leaf = person({server.url()});
  int verdict = -1;
  const Stopwatch watch;
  const Outcome outcome = cancel(
      [&] {
        Verifier verifier(world.store, handle(leaf), false);
        verifier.maxNetworkTime(1);
        verdict = verifier.isValid();
      },
      [&] { EXPECT_TRUE(server.waitForConnections(1)); });
  EXPECT_TRUE(outcome.returned);
  EXPECT_TRUE(outcome.cancelled);
  EXPECT_EQ(verdict, X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_TRUE(watch.took(500ms));
}

TEST_F(Cancellation, OpenSSLsOwnCheck_WaitsForTheVerdictToo) {
  const FaultServer server([&](Peer& peer) {
    if (!peer.readRequest()) return;
    untilCancelled();
    peer.write(Scripts::response(der(makeCRL({.issuer = &root}).get())));
  });
  const Issued leaf = issue({.subject = "O=Test,CN=Leaf",
                             .issuer = &root,
                             .crlDistributionPoints = {{.fullNames = {"URI:" + server.url()}}}});
  world.publish({.issuer = &root});
  int verdict = -1;
  const Outcome outcome =
      cancel([&] { verdict = Verifier(world.store, handle(leaf), true).isValid(); },
             [&] { EXPECT_TRUE(server.waitForRequests(1)); });
  EXPECT_TRUE(outcome.returned);
  EXPECT_TRUE(outcome.cancelled);
  EXPECT_EQ(verdict, X509_V_OK) << log.text();
}

TEST_F(Cancellation, OCSPClientAlone_ReturnsItsAnswer) {
  const OCSPAnswer good{.signer = &root};
  const FaultServer server(Scripts::answerWith([&](const std::string& request) {
    untilCancelled();
    return ocspAnswer(good, httpBody(request));
  }));
  const Issued leaf = person({server.url()});
  int answer = -1;
  const Outcome outcome = cancel(
      [&] {
        Asking asking(world, {leaf, root});
        answer = asking.ask(server.url());
      },
      [&] { EXPECT_TRUE(server.waitForRequests(1)); });
  EXPECT_TRUE(outcome.returned);
  EXPECT_TRUE(outcome.cancelled);
  EXPECT_EQ(answer, OCSP::kGood);
}

TEST_F(Cancellation, OCSPClientThatGoesWithItsConnection_EndsNoProcess) {
  const FaultServer server(Scripts::silence());
  const Issued leaf = person({server.url()});
  std::promise<void> connected;
  bool stood = false;
  const Outcome outcome = cancel(
      [&] {
        Asking asking(world, {leaf, root});
        stood = asking.client.connect(Uri(server.url()));
        connected.set_value();
        untilCancelled();  // closing the connection would heed it
      },
      [&] { connected.get_future().wait(); });
  EXPECT_TRUE(stood);
  EXPECT_TRUE(outcome.returned);
  EXPECT_TRUE(outcome.cancelled);
}

TEST_F(Cancellation, URILookupAlone_ReturnsWhatItFound) {
  const FaultServer server([&](Peer& peer) {
    if (!peer.readRequest()) return;
    untilCancelled();
    peer.write(Scripts::response(der(makeCRL({.issuer = &root}).get())));
  });
  std::list<RefCertificateRevocationList> found;
  const Outcome outcome = cancel([&] { URILookup().find(Uri(server.url("/ca.crl")), found); },
                                 [&] { EXPECT_TRUE(server.waitForRequests(1)); });
  EXPECT_TRUE(outcome.returned);
  EXPECT_TRUE(outcome.cancelled);
  EXPECT_EQ(found.size(), 1U);
}

TEST_F(Cancellation, LDAPQueryAlone_ReturnsWhatItFound) {
  std::promise<void> asked;
  const LDAPPeer peer([&](LDAPPeer::Connection& connection) {
    connection.read();
    connection.write(message(1, done(0, "", 0x61)));
    connection.read();
    asked.set_value();
    untilCancelled();
    connection.write(
        message(2, entry("cn=Root,o=Test", {{"cACertificate;binary", {der(root.get())}}})) +
        message(2, done(0)));
    connection.hold();
  });
  std::list<RefCertificate> found;
  const Outcome outcome = cancel(
      [&] {
        LDAPLookupMethod method({LDAPConnection::RefServer(peer.uri()), "", ""});
        method.getBySubject(std::string("o=Test"), found);
      },
      [&] { asked.get_future().wait(); });
  EXPECT_TRUE(outcome.returned);
  EXPECT_TRUE(outcome.cancelled);
  EXPECT_EQ(found.size(), 1U);
}

}  // namespace
}  // namespace Velantrix::Test
