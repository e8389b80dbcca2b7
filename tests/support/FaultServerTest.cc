#include "support/Command.h"
#include "support/Exchange.h"
#include "support/FaultScripts.h"
#include "support/FaultServer.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <system_error>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr char kGet[] = "GET /ca.crl HTTP/1.0\r\nAccept: */*\r\n\r\n";

std::string startOf(const std::string& text) { return text.substr(0, text.find("\r\n")); }

int exchangeError(const FaultServer& server) {
  try {
    exchangeBytes(server.port(), kGet);
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  }
}

TEST(FaultServer, Answer_IsThereByteForByteAndTheRequestToo) {
  const FaultServer server(Scripts::answer("body", "203 Sort Of", "X-A: b\r\n"));
  EXPECT_EQ(server.url("/ca.crl"), "http://127.0.0.1:" + std::to_string(server.port()) + "/ca.crl");
  EXPECT_EQ(exchangeBytes(server.port(), kGet),
            "HTTP/1.0 203 Sort Of\r\nContent-Length: 4\r\nX-A: b\r\n\r\nbody");
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.requests(), std::vector<std::string>{kGet});
  EXPECT_EQ(server.connections().at(0).received, kGet);
  EXPECT_EQ(server.connections().at(0).error, "");
}

TEST(FaultServer, RequestWithABody_IsReadWhole) {
  const FaultServer server(Scripts::answerWith([](const std::string& request) {
    return "for " + request.substr(request.find("\r\n\r\n") + 4);
  }));
  const std::string one = "POST / HTTP/1.0\r\ncontent-LENGTH:  5\r\n\r\n12\0\r\n"s;
  const std::string two = "POST / HTTP/1.0\r\nContent-Length: 1\r\n\r\n4";
  const std::string answers = exchangeBytes(server.port(), one + two + "trailing", "127.0.0.1", 80);
  EXPECT_EQ(answers,
            "HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\nfor 12\0\r\n"
            "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nfor 4"s);
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.requests(), (std::vector<std::string>{one, two}));
  EXPECT_EQ(server.connections().at(0).received, one + two + "trailing");
}

TEST(FaultServer, SeveralConnectionsAtOnce_AreServedAtOnce) {
  const FaultServer server(Scripts::inTurn({Scripts::silence(), Scripts::answer("x")}));
  const Descriptor silent = connectTo(server.port());
  ASSERT_TRUE(server.waitForConnections(1));
  EXPECT_EQ(startOf(exchangeBytes(server.port(), kGet)), "HTTP/1.0 200 OK");
  EXPECT_EQ(startOf(exchangeBytes(server.port(), kGet)), "HTTP/1.0 200 OK");
  EXPECT_EQ(server.connections().size(), 3U);
}

TEST(FaultServer, ClientCloses_SilentScriptEnds) {
  const FaultServer server(Scripts::silence());
  {
    const Descriptor client = connectTo(server.port());
    ASSERT_EQ(send(client.number(), kGet, sizeof kGet - 1, 0),
              static_cast<ssize_t>(sizeof kGet - 1));
    ASSERT_TRUE(server.waitForRequests(1));
    EXPECT_FALSE(server.waitForEnds(1, 20ms));
  }
  EXPECT_TRUE(server.waitForEnds(1));
}

TEST(FaultServer, ScriptThrows_ErrorIsKept) {
  const FaultServer server([](Peer&) { throw std::runtime_error("mistake"); });
  exchangeBytes(server.port(), "");
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().at(0).error, "mistake");
}

TEST(FaultServer, NothingComes_WaitingEnds) {
  const FaultServer server(Scripts::silence());
  EXPECT_FALSE(server.waitForConnections(1, 10ms));
  EXPECT_FALSE(server.waitForRequests(1, 10ms));
}

struct ReadyMade {
  const char* name;
  Script script;
  std::string all;  ///< what the client reads until the server closes
};

TEST(Scripts, ThoseThatEnd_SayWhatTheyShould) {
  const std::string page = "<!DOCTYPE html><html><body><h1>Please log in</h1></body></html>\n";
  const std::string rest = "Content-Length: 64\r\n";
  const ReadyMade rows[] = {
      {"raw", Scripts::raw("\r\n\0"s), "\r\n\0"s},
      {"trickle", Scripts::trickle("12345", 1ms), "12345"},
      {"closeAtOnce", Scripts::closeAtOnce(), ""},
      {"cutShort", Scripts::cutShort("half", 10),
       "HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\nhalf"},
      {"html", Scripts::html(),
       "HTTP/1.0 200 OK\r\n" + rest + "Content-Type: text/html\r\n\r\n" + page},
      {"notFound", Scripts::notFound(),
       "HTTP/1.0 404 Not Found\r\n" + rest + "Content-Type: text/html\r\n\r\n" + page},
      {"redirect", Scripts::redirect("http://a.test/"),
       "HTTP/1.0 302 Found\r\n" + rest + "Location: http://a.test/\r\n\r\n" + page},
  };
  for (const ReadyMade& row : rows) {
    const FaultServer server(row.script);
    // A close with unread bytes is a reset: say nothing to the one that does not listen.
    const bool reads = std::string(row.name) != "closeAtOnce";
    EXPECT_EQ(exchangeBytes(server.port(), reads ? kGet : ""), row.all) << row.name;
  }
  const FaultServer server(Scripts::garbage());
  EXPECT_EQ(exchangeBytes(server.port(), kGet).size(), 4096U);
}

TEST(Scripts, Reset_IsAReset) {
  const FaultServer server(Scripts::resetAtOnce());
  EXPECT_THROW(exchangeBytes(server.port(), ""), std::system_error);
  const FaultServer later([](Peer& peer) {
    peer.readRequest();
    peer.reset();
  });
  EXPECT_EQ(exchangeError(later), ECONNRESET);
}

struct Endless {
  const char* name;
  Script script;
  std::string begin;
  std::string next;
};

std::vector<Endless> endlessScripts() {
  return {
      {"body", Scripts::endlessBody(), "HTTP/1.0 200 OK\r\n\r\n", "xxx"},
      {"chunks", Scripts::endlessChunks(), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
       "10000\r\nxx"},
      {"headers", Scripts::endlessHeaders(), "HTTP/1.0 200 OK\r\n", "X-More: to come\r\nX-M"},
      {"header line", Scripts::endlessHeaderLine(), "HTTP/1.0 200 OK\r\nX-Long: ", "xxx"},
  };
}

TEST(Scripts, EndlessOnes_GoOnUntilTheClientCloses) {
  for (const Endless& row : endlessScripts()) {
    const FaultServer server(row.script);
    const std::string much = exchangeBytes(server.port(), kGet, "127.0.0.1", 8 << 20);
    EXPECT_GE(much.size(), 8U << 20) << row.name;
    EXPECT_EQ(much.compare(0, row.begin.size() + row.next.size(), row.begin + row.next), 0)
        << row.name << much.substr(0, 100);
    EXPECT_TRUE(server.waitForEnds(1)) << row.name;
  }
}

TEST(Scripts, HugePromise_IsNotKept) {
  const FaultServer server(Scripts::hugePromise());
  const std::string expected = "HTTP/1.0 200 OK\r\nContent-Length: 4294967296\r\n\r\na few bytes";
  EXPECT_EQ(exchangeBytes(server.port(), kGet, "127.0.0.1", expected.size()), expected);
  EXPECT_TRUE(server.waitForEnds(1));
}

/// How long the server takes to end while a client that does nothing hangs on each of its scripts.
std::chrono::steady_clock::duration timeToEnd(const Script& script) {
  auto server = std::make_unique<FaultServer>(script);
  const Descriptor client = connectTo(server->port());
  EXPECT_EQ(send(client.number(), kGet, sizeof kGet - 1, 0), static_cast<ssize_t>(sizeof kGet - 1));
  EXPECT_TRUE(server->waitForConnections(1));
  const auto begin = std::chrono::steady_clock::now();
  server.reset();
  return std::chrono::steady_clock::now() - begin;
}

TEST(FaultServer, Ends_AtOnceWhateverAScriptWaitsFor) {
  std::atomic<int> rounds = 0;
  std::vector<std::pair<const char*, Script>> rows = {
      {"silence", Scripts::silence()},
      {"trickle", Scripts::trickle("12345", 1h)},
      {"pause", [](Peer& peer) { peer.pause(1h); }},
      {"promise", Scripts::hugePromise()},
      {"cares for no result",
       [&](Peer& peer) {
         for (;;) {
           peer.write("x");
           ++rounds;
         }
       }},
      {"computes",
       [](Peer& peer) {
         while (!peer.stopping()) {
         }
       }},
      {"catches too much",
       [](Peer& peer) {
         try {
           peer.waitForPeerToClose();
         } catch (const std::exception&) {
         }
       }},
  };
  for (const Endless& endless : endlessScripts()) rows.emplace_back(endless.name, endless.script);
  for (const auto& [name, script] : rows) EXPECT_LT(timeToEnd(script), 5s) << name;
}

TEST(FaultServer, ClientGoneWhileWriting_NoSignalAndScriptEnds) {
  for (const bool abrupt : {false, true}) {
    const FaultServer server(Scripts::endlessBody());
    {
      const Descriptor client = connectTo(server.port());
      ASSERT_EQ(send(client.number(), kGet, sizeof kGet - 1, 0),
                static_cast<ssize_t>(sizeof kGet - 1));
      ASSERT_TRUE(server.waitForRequests(1));
      const linger now{1, 0};
      if (abrupt) setsockopt(client.number(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    EXPECT_TRUE(server.waitForEnds(1));
  }
}

/// The openssl command as a TLS client.
class TlsFaultServer : public testing::Test {
 protected:
  std::vector<std::string> clientCommand(const FaultServer& server, const Issued* as = nullptr) {
    std::vector<std::string> argv = {"openssl", "s_client", "-quiet", "-connect",
                                     "127.0.0.1:" + std::to_string(server.port())};
    if (as != nullptr) {
      writeFile(directory / "client.crt", pem(as->get()));
      writeFile(directory / "client.key", pem(as->key.get()));
      argv.insert(argv.end(),
                  {"-cert", directory / "client.crt", "-key", directory / "client.key"});
    }
    return argv;
  }

  TempDir directory;
  Issued root = issueCA("CN=Root");
  Issued tls = issue({.subject = "CN=127.0.0.1", .issuer = &root});
  Issued client = issue({.subject = "C=DE,CN=Client", .issuer = &root});
};

TEST_F(TlsFaultServer, Request_IsReadAndAnswered) {
  const FaultServer server(Scripts::answer(std::string(100000, 'x')), {.certificate = &tls});
  EXPECT_EQ(server.url().substr(0, 18), "https://127.0.0.1:");
  EXPECT_EQ(runCommand(clientCommand(server), kGet).out,
            Scripts::response(std::string(100000, 'x')));
  EXPECT_EQ(server.requests(), std::vector<std::string>{kGet});
  EXPECT_EQ(server.connections().at(0).clientSubject, "");
}

TEST_F(TlsFaultServer, ClientsCertificate_IsAskedForAndNamed) {
  const FaultServer server(Scripts::answer("x"), {.certificate = &tls, .clientCA = &root});
  EXPECT_EQ(runCommand(clientCommand(server, &client), kGet).out, Scripts::response("x"));
  EXPECT_EQ(server.connections().at(0).clientSubject, "CN=Client,C=DE");
}

TEST_F(TlsFaultServer, ClientWithoutOneOfTheCA_IsRefused) {
  const FaultServer server(Scripts::answer("x"), {.certificate = &tls, .clientCA = &root});
  EXPECT_EQ(runCommand(clientCommand(server), kGet).out, "");
  const Issued stranger = issue({.subject = "CN=Client"});
  EXPECT_EQ(runCommand(clientCommand(server, &stranger), kGet).out, "");
  ASSERT_TRUE(server.waitForEnds(2));
  EXPECT_TRUE(server.requests().empty());
  for (const FaultConnection& connection : server.connections()) {
    EXPECT_EQ(connection.error.substr(0, 11), "SSL_accept:") << connection.error;
  }
}

TEST_F(TlsFaultServer, PlainClient_IsAnErrorOfTheHandshake) {
  const FaultServer server(Scripts::answer("x"), {.certificate = &tls});
  exchangeError(server);
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().at(0).error.substr(0, 11), "SSL_accept:");
}

TEST_F(TlsFaultServer, CutAndClosed_DifferByTheFarewell) {
  // What a client gets that reads to the end: with the farewell nothing is wrong.
  const FaultServer cut(Scripts::cutShort("x", 10), {.certificate = &tls});
  const FaultServer closed(Scripts::answer("x"), {.certificate = &tls});
  EXPECT_NE(runCommand(clientCommand(cut), kGet).err.find("unexpected eof"), std::string::npos);
  EXPECT_EQ(runCommand(clientCommand(closed), kGet).err.find("unexpected eof"), std::string::npos);
}

TEST_F(TlsFaultServer, ClientGoneWhileWriting_NoSignalAndScriptEnds) {
  const FaultServer server(Scripts::endlessBody(), {.certificate = &tls});
  runCommand({"sh", "-c", R"(printf 'GET / HTTP/1.0\r\n\r\n' | "$@" 2>/dev/null | head -c 100000)",
              "sh", clientCommand(server)[0], clientCommand(server)[1], clientCommand(server)[2],
              clientCommand(server)[3], clientCommand(server)[4]});
  EXPECT_TRUE(server.waitForEnds(1));
}

TEST_F(TlsFaultServer, Ends_AtOnceDuringAHandshake) {
  auto server =
      std::make_unique<FaultServer>(Scripts::silence(), FaultServerOptions{.certificate = &tls});
  const Descriptor silent = connectTo(server->port());
  ASSERT_TRUE(server->waitForConnections(1));
  const auto begin = std::chrono::steady_clock::now();
  server.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

}  // namespace
}  // namespace Velantrix::Test
