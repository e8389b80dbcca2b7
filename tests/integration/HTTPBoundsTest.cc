// The HTTP client against peers that take time, or send without end.
#include "foundation/net/Cancellation.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/VerificationRun.h"
#include "integration/HTTPClient.h"
#include "support/FaultScripts.h"
#include "support/Loopback.h"
#include "support/Stopping.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::VerificationRun;
using HTTP::Connection;
using Kind = HTTP::Failure::Kind;

constexpr std::size_t kMegabyte = std::size_t{1024} * 1024;
/// Sanitizers copy what is made larger, and keep what is freed for a while.
#ifdef PKX509_SANITIZED
constexpr std::size_t kKept = 4;
#else
constexpr std::size_t kKept = 1;
#endif
/// What a verification has for the network here, so that tests need not wait for whole seconds.
constexpr auto kShort = 250ms;

std::string repeat(const std::string& text, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

/// Answers with `begin`, and then with `block` until the client is gone.
Script endless(const std::string& begin, const std::string& block) {
  return [begin, block](Peer& peer) {
    if (!peer.readRequest() || !peer.write(begin)) return;
    while (peer.write(block)) {
    }
  };
}

/// Knows when somebody knocks at it.
class DeafHost : public DeafListener {
 public:
  DeafHost() : before_(knocking()) {}

  /// Until somebody else than those in the queue would like to connect.
  void waitForSomebody() const {
    while (knocking() <= before_) std::this_thread::sleep_for(1ms);
  }

 private:
  // Sockets that have sent the first segment to the port and got no answer.
  int knocking() const {
    std::array<char, 32> wanted{};
    std::snprintf(wanted.data(), wanted.size(), " 0100007F:%04X 02 ", port());
    std::ifstream table("/proc/self/net/tcp");
    int count = 0;
    for (std::string line; std::getline(table, line);) {
      if (line.find(wanted.data()) != std::string::npos) ++count;
    }
    return count;
  }

  int before_;
};

TEST(HTTPBounds, Constants) {
  EXPECT_EQ(Connection::kConnectTime, 10s);
  EXPECT_EQ(Connection::kDefaultQueryTime, 30U);
  EXPECT_EQ(Connection::kDefaultContent, kMegabyte);
  EXPECT_EQ(Connection::kMaximumHeader, 16U * 1024U);
}

TEST(HTTPBounds, Silence_EndsWithTheQueryTime) {
  const FaultServer server(Scripts::silence());
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxQueryTime(1);
  const Stopwatch watch;
  EXPECT_EQ(client.get(), Connection::kTimedOut);
  EXPECT_TRUE(watch.took(1s));
  EXPECT_EQ(client.content(), "");
  expectFailure(client->failure(), {Kind::kTimedOut, ETIMEDOUT, 0, "no answer in 1 s"}, "silence");
  EXPECT_TRUE(server.waitForEnds(1)) << "the connection is still open";
}

TEST(HTTPBounds, TrickledBody_EndsWithTheQueryTimeHoweverOftenAByteComes) {
  const FaultServer server(Scripts::trickle(Scripts::response(std::string(1000, 'x')), 10ms));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxQueryTime(1);
  const Stopwatch watch;
  EXPECT_EQ(client.get(), Connection::kTimedOut);
  EXPECT_TRUE(watch.took(1s));
  EXPECT_EQ(client.content(), "");
  EXPECT_TRUE(server.waitForEnds(1));
}

// One clock from the first byte sent to the last byte read: what is lost between the calls, and in
// sending, is not given back in reading.
TEST(HTTPBounds, TimeBetweenSendingAndReceiving_CountsToo) {
  std::promise<void> waited;
  const FaultServer server([&waited](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.pause(700ms);
    waited.set_value();
    peer.waitForPeerToClose();
  });
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxQueryTime(1);
  const Stopwatch watch;
  client->send("GET / HTTP/1.0\r\n\r\n");
  waited.get_future().wait();
  EXPECT_EQ(client->receive(), Connection::kTimedOut);
  EXPECT_TRUE(watch.took(1s));
}

TEST(HTTPBounds, PeerThatDoesNotRead_EndsWithTheQueryTime) {
  const FaultServer server([](Peer& peer) { peer.pause(1h); });
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxQueryTime(1);
  const LW::RefBuffer body = bodyOf(std::string(32 * kMegabyte, 'x'));
  const Stopwatch watch;
  client->send("POST / HTTP/1.0\r\n\r\n");
  client->send(body);
  EXPECT_TRUE(watch.took(1s));
  client->send(body);  // waits no second time
  EXPECT_EQ(client->receive(), Connection::kTimedOut);
  expectFailure(client->failure(), {Kind::kTimedOut, ETIMEDOUT, 0, "no answer in 1 s"}, "sending");
  EXPECT_TRUE(watch.took(1s));
}

TEST(HTTPBounds, SecondRequest_HasTheWholeTimeAgain) {
  const FaultServer server(Scripts::inTurn({Scripts::silence(), Scripts::answer("second")}));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxQueryTime(1);
  EXPECT_EQ(client.get(), Connection::kTimedOut);
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client.content(), "second");
}

TEST(HTTPBounds, QueryTimeOfZero_IsTheDefaultAndNotNone) {
  const FaultServer server(Scripts::answer("x"));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxQueryTime(0);
  EXPECT_EQ(client.get(), Connection::kComplete);
}

TEST(HTTPBounds, TimeOfTheVerification_BoundsEveryStep) {
  const std::string right = Scripts::response(std::string(1000, 'x'));
  const struct {
    const char* what;
    Script script;
  } rows[] = {
      {"silence", Scripts::silence()},
      {"status line and headers, trickled",
       Scripts::trickle("HTTP/1.0 200 OK\r\nX-Long: " + std::string(1000, 'x'), 10ms)},
      {"chunks, trickled",
       Scripts::trickle(
           "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + repeat("1\r\nx\r\n", 200),
           5ms)},
      {"silence after the headers",
       [](Peer& peer) {
         if (!peer.readRequest()) return;
         peer.write("HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\nbody");
         peer.waitForPeerToClose();
       }},
      {"body without an end that is announced, and never closed",
       [](Peer& peer) {
         if (!peer.readRequest()) return;
         peer.write("HTTP/1.0 200 OK\r\n\r\nbody");
         peer.waitForPeerToClose();
       }},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    const Stopwatch watch;
    VerificationRun run(nullptr, {.networkTime = kShort});
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port())) << row.what;
    EXPECT_EQ(client.get(), Connection::kTimedOut) << row.what;
    EXPECT_TRUE(watch.took(kShort)) << row.what;
    EXPECT_EQ(client.content(), "") << row.what;
    expectFailure(
        client->failure(),
        {Kind::kTimedOut, ETIMEDOUT, 0, "no answer in the time that was left for the network"},
        row.what);
    EXPECT_GE(run.network().timeSpent(), kShort) << row.what;
    EXPECT_TRUE(server.waitForEnds(1)) << row.what;
  }
}

TEST(HTTPBounds, VerificationWithoutTimeLeft_ConnectsNowhere) {
  const FaultServer server(Scripts::answer("x"));
  VerificationRun run(nullptr, {.networkTime = 1s});
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kComplete);
  run.network().countTime(1s);
  const Stopwatch watch;
  EXPECT_EQ(client.get(), Connection::kClosed);
  EXPECT_EQ(client->failure().kind, Kind::kNoTime);
  EXPECT_FALSE(client.connect(server.port()));
  EXPECT_EQ(client->failure(), HTTP::Failure{.kind = Kind::kNoTime});
  EXPECT_FALSE(HTTPClient().connect(server.port()));
  EXPECT_TRUE(watch.tookNoTime());
  EXPECT_EQ(server.connections().size(), 1U);
}

TEST(HTTPBounds, TimeUsed_IsCountedOnce) {
  const FaultServer server([](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.pause(100ms);
    peer.write(Scripts::response("x"));
  });
  VerificationRun run(nullptr, {.networkTime = 10s});
  HTTPClient client;
  const Stopwatch watch;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_GE(run.network().timeSpent(), 100ms);
  EXPECT_LE(run.network().timeSpent(), watch.elapsed() + 1ms);
}

TEST(HTTPBounds, HostThatDoesNotAnswer_EndsWithTheTimeOfTheVerification) {
  const DeafListener listener;
  VerificationRun run(nullptr, {.networkTime = kShort});
  HTTPClient client;
  const Stopwatch watch;
  EXPECT_FALSE(client.connect(listener.port()));
  expectFailure(client->failure(), {Kind::kConnect, ETIMEDOUT, 0, "Connection timed out"}, "host");
  EXPECT_TRUE(watch.took(kShort));
  EXPECT_EQ(client.get(), Connection::kClosed);
  EXPECT_TRUE(watch.took(kShort));
}

TEST(HTTPBounds, DeadlineOfTheVerification_EndsWaitsAsItsTimeForTheNetworkDoes) {
  const FaultServer server(Scripts::silence());
  const VerificationRun run(nullptr, {.wholeTime = kShort});
  HTTPClient client;
  const Stopwatch watch;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kTimedOut);
  EXPECT_TRUE(watch.took(kShort));
  EXPECT_TRUE(run.fellShort());
  EXPECT_EQ(run.spent(), std::vector<std::string_view>{"time"});
  EXPECT_FALSE(client.connect(server.port()));
  EXPECT_EQ(client->failure(), HTTP::Failure{.kind = Kind::kNoTime});
  EXPECT_EQ(server.connections().size(), 1U);
}

TEST(HTTPBounds, AskedToStopWhileAHostDoesNotAnswer_EndsAtOnce) {
  const DeafHost host;
  Stopping stopping([&] { host.waitForSomebody(); });
  const Cancellation here(stopping.token());
  HTTPClient client;
  EXPECT_FALSE(client.connect(host.port()));
  EXPECT_TRUE(stopping.wasHeardInTime());
  EXPECT_EQ(client->failure(), HTTP::Failure{.kind = Kind::kCancelled});
}

TEST(HTTPBounds, AskedToStopMeanwhile_EndsAtOnceAndIsNotTheHostsFailure) {
  const std::string body(1000, 'x');
  const struct {
    const char* what;
    Script script;
    const char* scheme;
  } rows[] = {
      {"no answer", Scripts::silence(), "http"},
      {"slow headers", Scripts::trickle("HTTP/1.0 200 OK\r\nX-Long: " + body, 10ms), "http"},
      {"slow body", Scripts::trickle(Scripts::response(body), 10ms), "http"},
      {"endless body", Scripts::endlessBody(), "http"},
      {"TLS handshake", [](Peer& peer) { peer.waitForPeerToClose(); }, "https"},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    const bool isTls = row.scheme == std::string("https");
    Stopping stopping([&] {
      EXPECT_TRUE(isTls ? server.waitForConnections(1) : server.waitForRequests(1)) << row.what;
    });
    const VerificationRun run(nullptr, {.stop = stopping.token()});
    HTTPClient client{isTls ? HTTP::RefStream(boost::asio::ssl::context_base::tls_client)
                            : HTTP::RefStream(HTTP::Stream::kPlain)};
    client->maxContent(std::size_t{1} << 40U);
    const bool connected = client.connect(server.port());
    EXPECT_EQ(connected, !isTls) << row.what;
    if (connected) {
      EXPECT_EQ(client.get(), Connection::kCancelled) << row.what;
    }
    EXPECT_TRUE(stopping.wasHeardInTime()) << row.what;
    EXPECT_EQ(client->failure(), HTTP::Failure{.kind = Kind::kCancelled}) << row.what;
    EXPECT_EQ(client.content(), "") << row.what;
    EXPECT_TRUE(run.fellShort()) << row.what;
    EXPECT_EQ(run.spent(), std::vector<std::string_view>{"cancelled"}) << row.what;
    EXPECT_TRUE(server.waitForEnds(1)) << row.what;
  }
}

TEST(HTTPBounds, AskedToStopWhileTheHostDoesNotRead_EndsAtOnce) {
  const FaultServer server([](Peer& peer) { peer.pause(1h); });
  const LW::RefBuffer body = bodyOf(std::string(32 * kMegabyte, 'x'));
  Stopping stopping([&] { EXPECT_TRUE(server.waitForConnections(1)); });
  const Cancellation here(stopping.token());
  HTTPClient client;
  if (client.connect(server.port())) {
    client->send("POST / HTTP/1.0\r\n\r\n");
    client->send(body);
    EXPECT_EQ(client->receive(), Connection::kCancelled);
  }
  EXPECT_TRUE(stopping.wasHeardInTime());
  EXPECT_EQ(client->failure(), HTTP::Failure{.kind = Kind::kCancelled});
}

TEST(HTTPBounds, AskedToStopBefore_ConnectsNowhere) {
  const FaultServer server(Scripts::answer("x"));
  std::stop_source source;
  source.request_stop();
  const Cancellation here(source.get_token());
  const HTTP::Answer answer = HTTP::exchange(Uri(server.url()), {"", ""}, {});
  EXPECT_EQ(answer.outcome, 0);
  EXPECT_EQ(answer.problem, "somebody asked to stop");
  EXPECT_EQ(answer.failure, HTTP::Failure{.kind = Kind::kCancelled});
  EXPECT_TRUE(server.connections().empty());
}

TEST(HTTPBounds, EndlessAnswers_AreTooLargeAtOnceAndTakeLittleMemory) {
  const std::string chunks = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const struct {
    const char* what;
    Script script;
  } rows[] = {
      {"body", Scripts::endlessBody()},
      {"chunks", Scripts::endlessChunks()},
      {"headers", Scripts::endlessHeaders()},
      {"line of a header", Scripts::endlessHeaderLine()},
      {"status line", endless("HTTP/1.0 200 ", std::string(4096, 'x'))},
      {"chunks of one byte", endless(chunks, repeat("1\r\nx\r\n", 1000))},
      {"extension of a chunk", endless(chunks + "4;", std::string(4096, 'x'))},
      {"trailer", endless(chunks + "0\r\n", repeat("X-More: to come\r\n", 1000))},
      {"line of a trailer", endless(chunks + "0\r\nX-Long: ", std::string(4096, 'x'))},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port())) << row.what;
    const MemoryPeak peak;
    const Stopwatch watch;
    EXPECT_EQ(client.get(), Connection::kTooLarge) << row.what;
    EXPECT_LT(watch.elapsed(), 10s) << row.what;  // the query time is three times that
    EXPECT_LT(peak.resident(), 16 * kMegabyte) << row.what;
    EXPECT_LE(client->contentReceived(), Connection::kDefaultContent) << row.what;
    EXPECT_EQ(client.content(), "") << row.what;
    EXPECT_EQ(client->content().capacity(), 0U) << row.what;
    EXPECT_TRUE(server.waitForEnds(1)) << row.what;
  }
}

TEST(HTTPBounds, PromiseOf4GiB_IsTooLargeBeforeTheBodyComes) {
  const FaultServer server(Scripts::hugePromise());
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxContent(64 * kMegabyte);
  const MemoryPeak peak;
  const Stopwatch watch;
  EXPECT_EQ(client.get(), Connection::kTooLarge);
  EXPECT_TRUE(watch.tookNoTime());
  EXPECT_LT(peak.addresses(), 1024 * kMegabyte);
  EXPECT_EQ(client->contentReceived(), 0U);
}

// What would be allowed is not made room for until it is there.
TEST(HTTPBounds, PromiseThatIsAllowed_TakesNoMemoryByItself) {
  for (const char* promise :
       {"Content-Length: 4294967296\r\n\r\n", "Transfer-Encoding: chunked\r\n\r\n100000000\r\n"}) {
    const FaultServer server([promise](Peer& peer) {
      if (!peer.readRequest()) return;
      peer.write("HTTP/1.1 200 OK\r\n" + std::string(promise) + "a few bytes");
    });
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port()));
    client->maxContent(8192 * kMegabyte);
    const MemoryPeak peak;
    EXPECT_EQ(client.get(), Connection::kCutShort) << promise;
    EXPECT_LT(peak.addresses(), 1024 * kMegabyte) << promise;
    EXPECT_EQ(client->contentReceived(), 11U) << promise;
    EXPECT_EQ(client.content(), "") << promise;
  }
}

TEST(HTTPBounds, Headers_AreReadUpTo16KiBAndNotMuchFurther) {
  const std::string status = "HTTP/1.0 200 OK\r\n";
  const std::string end = "\r\nContent-Length: 4\r\n\r\n";
  constexpr std::size_t kLimit = Connection::kMaximumHeader;
  const auto headers = [&](std::size_t size) {
    return status + "X-Long: " + std::string(size - status.size() - 8 - end.size(), 'x') + end;
  };
  const std::string many = repeat("X-More: to come\r\n", 3 * kLimit / 17);
  const struct {
    const char* what;
    std::string header;
    int outcome;
  } rows[] = {
      {"just fits", headers(kLimit), Connection::kComplete},
      {"one line too long", headers(kLimit + status.size() + end.size()), Connection::kTooLarge},
      {"status line too long", "HTTP/1.0 200 " + std::string(kLimit, 'x') + end,
       Connection::kTooLarge},
      {"many short ones", status + many + end, Connection::kTooLarge},
  };
  for (const auto& row : rows) {
    const FaultServer server(Scripts::raw(row.header + "body"));
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port()));
    EXPECT_EQ(client.get(), row.outcome) << row.what;
    EXPECT_EQ(client.content(), row.outcome == Connection::kComplete ? "body" : "") << row.what;
  }
}

TEST(HTTPBounds, BodyReceivedInPart_IsCountedForTheAllowance) {
  const FaultServer server(Scripts::cutShort("half", 8));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kCutShort);
  EXPECT_EQ(client->contentReceived(), 4U);
  EXPECT_EQ(client.content(), "");
}

TEST(HTTPBounds, LongAnswers_NeedNoSecondCopyInMemory) {
  const std::string body(48 * kMegabyte, 'x');
  const FaultServer server([&body](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.write("HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
    peer.write(body);
  });
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->maxContent(64 * kMegabyte);
  const MemoryPeak peak;
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client->content().length(), body.size());
  // Half as much again for the room that the buffer makes, and a little for everything else.
  EXPECT_LT(peak.resident(), kKept * (body.size() + body.size() / 2) + 16 * kMegabyte);
}

}  // namespace
}  // namespace Velantrix::Test
