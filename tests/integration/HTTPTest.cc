// What the HTTP client sends, and what it makes of answers.
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/http/HTTPAccess.h"
#include "integration/HTTPClient.h"
#include "support/FaultScripts.h"
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/WebServer.h"

#include <velantrix/Exception.h>
#include <velantrix/Uri.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using HTTP::Connection;

struct Answer {
  const char* what;
  std::string bytes;
  int outcome;
  std::string body = {};
};

// Each answer comes on a connection of its own, whole and in one piece, or else a byte at a time.
void expectOutcomes(const std::vector<Answer>& rows) {
  for (const Answer& row : rows) {
    for (const bool trickled : {false, true}) {
      const FaultServer server(trickled ? Scripts::trickle(row.bytes, 0ms)
                                        : Scripts::raw(row.bytes));
      HTTPClient client;
      ASSERT_TRUE(client.connect(server.port()));
      client->maxContent(1000);
      EXPECT_EQ(client.get(), row.outcome) << row.what << (trickled ? ", trickled" : "");
      EXPECT_EQ(client.content(), row.body) << row.what << (trickled ? ", trickled" : "");
    }
  }
}

std::string chunked(const std::string& chunks, const std::string& headers = {}) {
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n" + headers + "\r\n" + chunks;
}

TEST(HTTPConnection, RightAnswers_AreComplete) {
  const std::string most(1000, 'x');
  const std::string zeros = "\0\r\n\r\n\xff\0"s;
  expectOutcomes({
      {"length, 1.0", "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\nbody", 7, "body"},
      {"length, 1.1", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody", 7, "body"},
      {"until close, 1.0", "HTTP/1.0 200 OK\r\n\r\nbody", 7, "body"},
      {"until close, 1.1", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nbody", 7, "body"},
      {"any bytes", Scripts::response(zeros), 7, zeros},
      {"any bytes until close", "HTTP/1.0 200 OK\r\n\r\n" + zeros, 7, zeros},
      {"no reason", "HTTP/1.0 200 \r\nContent-Length: 4\r\n\r\nbody", 7, "body"},
      {"another reason", "HTTP/1.0 200 Not Found\r\nContent-Length: 4\r\n\r\nbody", 7, "body"},
      {"name of a header in any case", "HTTP/1.0 200 OK\r\ncONTENT-length:4\r\n\r\nbody", 7,
       "body"},
      {"more than the length", "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\nbody and more", 7,
       "body"},
      {"length 0", "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", 7, ""},
      {"length 0 and more", "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\nbody", 7, ""},
      {"empty until close", "HTTP/1.0 200 OK\r\n\r\n", 7, ""},
      {"chunks", chunked("2\r\nbo\r\n2\r\ndy\r\n0\r\n\r\n"), 7, "body"},
      {"chunks with extensions", chunked("2;a=b\r\nbo\r\n2;c=\"d\\\";\";e\r\ndy\r\n0;f\r\n\r\n"), 7,
       "body"},
      {"chunks with a trailer", chunked("4\r\nbody\r\n0\r\nX-Sum: 1\r\nX-More: 2\r\n\r\n"), 7,
       "body"},
      {"chunk size with zeros in front", chunked("0004\r\nbody\r\n000\r\n\r\n"), 7, "body"},
      {"no chunks", chunked("0\r\n\r\n"), 7, ""},
      {"another type", Scripts::response("<html>", "200 OK", "Content-Type: text/html\r\n"), 7,
       "<html>"},
      {"a type nobody packed", Scripts::response("body", "200 OK", "Content-Encoding: gzip\r\n"), 7,
       "body"},
      {"exactly the most that is read", Scripts::response(most), 7, most},
      {"the same until close", "HTTP/1.0 200 OK\r\n\r\n" + most, 7, most},
      {"the same in chunks", chunked("3e8\r\n" + most + "\r\n0\r\n\r\n"), 7, most},
  });
}

// Where assertions of Boost.Beast's are compiled in, this one of its own ended the process.
TEST(HTTPConnection, LastChunkThatComesInPieces_IsComplete) {
  const std::string last = "0\r\n\r\n";
  for (std::size_t first = 1; first < last.size(); ++first) {
    const FaultServer server([&](Peer& peer) {
      if (!peer.readRequest()) return;
      peer.write(chunked(last.substr(0, first)));
      for (const char byte : last.substr(first)) {
        peer.pause(10ms);
        peer.write({&byte, 1});
      }
    });
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port()));
    EXPECT_EQ(client.get(), Connection::kComplete) << first;
    EXPECT_EQ(client.content(), "") << first;
  }
}

TEST(HTTPConnection, AnswersOfAnotherStatus_AreNotRead) {
  const std::string page = "Content-Length: 6\r\n\r\n<html>";
  expectOutcomes({
      {"100", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\nbody", Connection::kOtherStatus},
      {"201", "HTTP/1.0 201 Created\r\n" + page, Connection::kOtherStatus},
      {"204", "HTTP/1.0 204 No Content\r\n\r\n", Connection::kOtherStatus},
      {"206", "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-5/9\r\n" + page,
       Connection::kOtherStatus},
      {"301", "HTTP/1.0 301 Moved\r\nLocation: /x\r\n" + page, Connection::kOtherStatus},
      {"304", "HTTP/1.0 304 Not Modified\r\n\r\n", Connection::kOtherStatus},
      {"404", "HTTP/1.0 404 Not Found\r\n" + page, Connection::kOtherStatus},
      {"404 cut short", "HTTP/1.0 404 Not Found\r\nContent-Length: 900\r\n\r\n<ht",
       Connection::kOtherStatus},
      {"500", "HTTP/1.0 500 Oops\r\n" + page, Connection::kOtherStatus},
      {"000", "HTTP/1.0 000 None\r\n" + page, Connection::kOtherStatus},
      {"999", "HTTP/1.0 999 Most\r\n" + page, Connection::kOtherStatus},
  });
}

TEST(HTTPConnection, AnswersThatEndInTheMiddle_AreCutShort) {
  expectOutcomes({
      {"status line", "HTTP/1.0 200", Connection::kCutShort},
      {"one byte", "H", Connection::kCutShort},
      {"headers", "HTTP/1.0 200 OK\r\nContent-Le", Connection::kCutShort},
      {"end of the headers", "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n", Connection::kCutShort},
      {"no byte of a body", "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\n", Connection::kCutShort},
      {"all but a byte", "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\nbod", Connection::kCutShort},
      {"no chunk", chunked(""), Connection::kCutShort},
      {"size of a chunk", chunked("4"), Connection::kCutShort},
      {"chunk", chunked("4\r\nbod"), Connection::kCutShort},
      {"end of a chunk", chunked("4\r\nbody"), Connection::kCutShort},
      {"no last chunk", chunked("4\r\nbody\r\n"), Connection::kCutShort},
      {"last chunk without its end", chunked("4\r\nbody\r\n0\r\n"), Connection::kCutShort},
      {"trailer", chunked("4\r\nbody\r\n0\r\nX-Su"), Connection::kCutShort},
  });
}

TEST(HTTPConnection, AnswersAboveTheirBounds_AreTooLarge) {
  const std::string more(1001, 'x');
  expectOutcomes({
      {"promised", Scripts::response(more), Connection::kTooLarge},
      {"promised and not sent", "HTTP/1.0 200 OK\r\nContent-Length: 1001\r\n\r\n",
       Connection::kTooLarge},
      {"promised 4 GiB", "HTTP/1.0 200 OK\r\nContent-Length: 4294967296\r\n\r\nbody",
       Connection::kTooLarge},
      {"promised 16 EiB less a byte",
       "HTTP/1.0 200 OK\r\nContent-Length: 18446744073709551615\r\n\r\nbody",
       Connection::kTooLarge},
      {"until close", "HTTP/1.0 200 OK\r\n\r\n" + more, Connection::kTooLarge},
      {"one chunk", chunked("3e9\r\n" + more + "\r\n0\r\n\r\n"), Connection::kTooLarge},
      {"two chunks", chunked("3e8\r\n" + more.substr(1) + "\r\n1\r\nx\r\n0\r\n\r\n"),
       Connection::kTooLarge},
      {"chunk of 16 EiB less a byte", chunked("ffffffffffffffff\r\nbody"), Connection::kTooLarge},
  });
}

TEST(HTTPConnection, WhatIsNoAnswer_IsMalformed) {
  // All of them have an end like a header's: without one, the parser might wait for more of it.
  const std::string ok = "HTTP/1.0 200 OK\r\n";
  std::string noise;
  for (int i = 0; i < 4096; ++i) noise += static_cast<char>((i * 167 + 13) % 256);
  expectOutcomes({
      {"noise", noise + "\r\n\r\n", Connection::kMalformed},
      {"zeros", std::string(100, '\0') + "\r\n\r\n", Connection::kMalformed},
      {"a document alone, as HTTP 0.9 sends it", "<html><body>Hello</body></html>\r\n\r\n",
       Connection::kMalformed},
      {"a CRL alone", "\x30\x82\x01\x00\x30\x81\xbd\r\n\r\n"s, Connection::kMalformed},
      {"HTTP 2.0", "HTTP/2.0 200 OK\r\nContent-Length: 4\r\n\r\nbody", Connection::kMalformed},
      {"HTTP 2", "HTTP/2 200\r\nContent-Length: 4\r\n\r\nbody", Connection::kMalformed},
      {"HTTP 1.2", "HTTP/1.2 200 OK\r\nContent-Length: 4\r\n\r\nbody", Connection::kMalformed},
      {"HTTP 0.9", "HTTP/0.9 200 OK\r\nContent-Length: 4\r\n\r\nbody", Connection::kMalformed},
      {"HTTP 1", "HTTP/1 200 OK\r\nContent-Length: 4\r\n\r\nbody", Connection::kMalformed},
      {"settings frame of HTTP 2", "\0\0\x06\x04\0\0\0\0\0\0\x03\0\0\0\x64\r\n\r\n"s,
       Connection::kMalformed},
      {"another protocol", "ICY 200 OK\r\n\r\nbody", Connection::kMalformed},
      {"mail server", "220 mail.example.com ESMTP\r\n\r\n", Connection::kMalformed},
      {"status of two digits", "HTTP/1.0 20 OK\r\n\r\nbody", Connection::kMalformed},
      {"status of four digits", "HTTP/1.0 2000 OK\r\n\r\nbody", Connection::kMalformed},
      {"status of letters", "HTTP/1.0 abc OK\r\n\r\nbody", Connection::kMalformed},
      {"header without a colon", ok + "Content-Length 4\r\n\r\nbody", Connection::kMalformed},
      {"header without a name", ok + ": 4\r\n\r\nbody", Connection::kMalformed},
      {"blank in front of the colon", ok + "Content-Length : 4\r\n\r\nbody",
       Connection::kMalformed},
      {"zero byte in a header", ok + "X-Zero: a\0b\r\n\r\nbody"s, Connection::kMalformed},
      {"length of letters", ok + "Content-Length: four\r\n\r\nbody", Connection::kMalformed},
      {"negative length", ok + "Content-Length: -4\r\n\r\nbody", Connection::kMalformed},
      {"length with a sign", ok + "Content-Length: +4\r\n\r\nbody", Connection::kMalformed},
      {"length in hexadecimal", ok + "Content-Length: 0x4\r\n\r\nbody", Connection::kMalformed},
      {"empty length", ok + "Content-Length:\r\n\r\nbody", Connection::kMalformed},
      {"length above 64 bits", ok + "Content-Length: 18446744073709551620\r\n\r\nbody",
       Connection::kMalformed},
      {"two lengths", ok + "Content-Length: 4\r\nContent-Length: 2\r\n\r\nbody",
       Connection::kMalformed},
      {"length and chunks", chunked("4\r\nbody\r\n0\r\n\r\n", "Content-Length: 4\r\n"),
       Connection::kMalformed},
      {"chunk size of letters", chunked("zz\r\nbody\r\n0\r\n\r\n"), Connection::kMalformed},
      {"negative chunk size", chunked("-4\r\nbody\r\n0\r\n\r\n"), Connection::kMalformed},
      {"no chunk size", chunked("\r\nbody\r\n0\r\n\r\n"), Connection::kMalformed},
      {"chunk size above 64 bits", chunked("10000000000000004\r\nbody\r\n0\r\n\r\n"),
       Connection::kMalformed},
      {"chunk longer than its size", chunked("3\r\nbody\r\n0\r\n\r\n"), Connection::kMalformed},
  });
}

TEST(HTTPConnection, PeerThatSaysNothing_HasClosed) {
  const struct {
    const char* what;
    Script script;
  } rows[] = {{"closed at once", Scripts::closeAtOnce()},
              {"reset at once", Scripts::resetAtOnce()},
              {"closed after the request", Scripts::raw("")}};
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    HTTPClient client;
    const Stopwatch watch;
    const bool connected = client.connect(server.port());  // a reset can be there before
    EXPECT_EQ(client.get(), Connection::kClosed) << row.what << ", " << connected;
    EXPECT_TRUE(watch.tookNoTime()) << row.what;
    EXPECT_EQ(client.content(), "") << row.what;
  }
}

TEST(HTTPConnection, ResetInTheMiddle_IsCutShort) {
  // The client has to have read what came before: a reset takes the rest away.
  const FaultServer server([](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.write("HTTP/1.0 200 OK\r\nContent-Length: 100\r\n\r\nbody");
    peer.pause(50ms);
    peer.reset();
  });
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kCutShort);
  EXPECT_EQ(client.content(), "");
  EXPECT_EQ(client->contentReceived(), 4U);
}

using Kind = HTTP::Failure::Kind;

// What a peer that closes with octets left unread does to the other side depends on the moment, so
// each of these reads the request.
TEST(HTTPConnection, Failure_SaysWhatWentWrongAndWhatThePeerSaid) {
  const std::string ended = "the server closed the connection";
  const std::string longReason(300, 'x');
  const std::string ok = "HTTP/1.0 200 OK\r\n";
  const struct {
    const char* what;
    Script script;
    HTTP::Failure expected;
  } rows[] = {
      {"complete", Scripts::answer("body"), {}},
      {"404", Scripts::notFound(), {Kind::kStatus, 0, 404, "Not Found"}},
      {"302", Scripts::redirect("/elsewhere"), {Kind::kStatus, 0, 302, "Found"}},
      {"no reason",
       Scripts::raw("HTTP/1.0 503 \r\n\r\n"),
       {Kind::kStatus, 0, 503, "Service Unavailable"}},
      {"hostile reason",
       Scripts::raw("HTTP/1.0 500 \t\xff" + longReason + "\r\n\r\n"),
       {Kind::kStatus, 0, 500, "\t\xff" + longReason.substr(46)}},
      {"cut short", Scripts::cutShort("half", 8), {Kind::kCutShort, 0, 0, ended}},
      {"headers cut short", Scripts::raw(ok), {Kind::kCutShort, 0, 0, ended}},
      {"long content",
       Scripts::answer(std::string(1001, 'x')),
       {Kind::kTooLarge, 0, 0, "content above 1000 octets"}},
      {"long header",
       Scripts::raw(ok + "X-Long: " + std::string(20'000, 'x') + "\r\n\r\n"),
       {Kind::kTooLarge, 0, 0, "header above 16384 octets"}},
      {"another protocol",
       Scripts::raw("220 mail.example.com ESMTP\r\n\r\n"),
       {Kind::kMalformed, 0, 0, "bad version"}},
      {"another version",
       Scripts::raw("HTTP/1.2 200 OK\r\n\r\n"),
       {Kind::kMalformed, 0, 0, "bad version"}},
      {"a length that is none",
       Scripts::raw(ok + "Content-Length: x\r\n\r\n"),
       {Kind::kMalformed, 0, 0, "bad Content-Length"}},
      {"closed", Scripts::raw(""), {Kind::kClosed, 0, 0, ended}},
      {"reset",
       [](Peer& peer) {
         if (peer.readRequest()) peer.reset();
       },
       {Kind::kClosed, ECONNRESET, 0, "Connection reset by peer"}},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port())) << row.what;
    EXPECT_EQ(client->failure(), HTTP::Failure()) << row.what;
    client->maxContent(1000);
    client.get();
    expectFailure(client->failure(), row.expected, row.what);
  }
}

TEST(HTTPConnection, FailureToConnect_SaysWhy) {
  const ReservedPort port;
  HTTPClient client;
  EXPECT_FALSE(client.connect(port.number()));
  const HTTP::Failure refused{Kind::kConnect, ECONNREFUSED, 0, "Connection refused"};
  expectFailure(client->failure(), refused, "nobody listens");
  EXPECT_EQ(client.get(), Connection::kClosed);  // has nothing to add
  expectFailure(client->failure(), refused, "nobody listens, and asked all the same");

  const FaultServer server(Scripts::answer("x"));
  {
    const AddressAdmission admission(Crypto::PKX509::AddressPolicy::publicOnly());
    EXPECT_FALSE(client.connect(server.port()));
  }
  expectFailure(client->failure(), {Kind::kRefusedAddress, 0, 0, "a loopback address: 127.0.0.1"},
                "policy");
  EXPECT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client->failure(), HTTP::Failure());
}

TEST(HTTPConnection, FailureToConnectAgain_SaysWhy) {
  HTTPClient client;
  {
    const FaultServer server(Scripts::answer("first"));
    ASSERT_TRUE(client.connect(server.port()));
    EXPECT_EQ(client.get(), Connection::kComplete);
    EXPECT_EQ(client->receive(), Connection::kClosed);
    expectFailure(client->failure(), {Kind::kClosed, 0, 0, "no request was sent"}, "no request");
  }
  EXPECT_EQ(client.get(), Connection::kClosed);
  expectFailure(client->failure(), {Kind::kConnect, ECONNREFUSED, 0, "Connection refused"}, "gone");
}

TEST(HTTPConnection, Unreachable_IsDisconnectedAndKeepsTheReason) {
  const FaultServer server(Scripts::silence());
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  const HTTP::Failure unknown{Kind::kResolve, 4, 0, "Domain name not found"};
  client->unreachable(unknown);
  EXPECT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(client.get(), Connection::kClosed);
  expectFailure(client->failure(), unknown, "unreachable");
  client->disconnect();
  EXPECT_EQ(client->failure(), HTTP::Failure());
}

const HTTP::ClientIdentity kNobody{"/no/such.crt", "/no/such.key"};

TEST(HTTPExchange, Answer_HasItsFailureOctetsAndTime) {
  const ReservedPort port;
  const struct {
    const char* what;
    Script script;
    std::string problem;
    HTTP::Failure expected;
    std::size_t received;
  } rows[] = {
      {"whole", Scripts::answer("body"), "", {}, 4},
      {"half",
       Scripts::cutShort("half", 8),
       "the answer ends in the middle",
       {Kind::kCutShort, 0, 0, "the server closed the connection"},
       4},
      {"302", Scripts::redirect("/"), "HTTP status 302", {Kind::kStatus, 0, 302, "Found"}, 0},
  };
  for (const auto& row : rows) {
    const FaultServer server([&row](Peer& peer) {
      peer.pause(20ms);
      row.script(peer);
    });
    const HTTP::Answer answer =
        HTTP::exchange(Uri(server.url()), kNobody, {.header = "GET / HTTP/1.0\r\n\r\n"});
    EXPECT_EQ(answer.problem, row.problem) << row.what;
    expectFailure(answer.failure, row.expected, row.what);
    EXPECT_EQ(answer.received, row.received) << row.what;
    EXPECT_GE(answer.taken, 20ms) << row.what;
  }
}

TEST(HTTPExchange, NothingSent_HasItsFailureToo) {
  const ReservedPort port;
  const std::string place = "//127.0.0.1:" + port.text() + '/';
  const HTTP::Answer refused = HTTP::exchange(Uri("http:" + place), kNobody, {});
  EXPECT_EQ(refused.outcome, 0);
  EXPECT_EQ(refused.problem, "could not connect");
  expectFailure(refused.failure, {Kind::kConnect, ECONNREFUSED, 0, "Connection refused"},
                "refused");
  EXPECT_EQ(refused.received, 0U);
  EXPECT_GT(refused.taken, 0ns);

  const HTTP::Answer nobody = HTTP::exchange(Uri("https:" + place), kNobody, {});
  EXPECT_EQ(nobody.outcome, 0);
  EXPECT_TRUE(nobody.problem.starts_with("client certificate or key: /no/such.crt: "))
      << nobody.problem;
  expectFailure(
      nobody.failure,
      {Kind::kClientIdentity, ENOENT, 0, "/no/such.crt: No such file or directory", "/no/such.crt"},
      "no certificate");
}

TEST(HTTPConnection, Request_IsSentByteForByte) {
  const FaultServer server(Scripts::answer("answer"));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  const std::string header = "POST //path HTTP/1.0\r\nContent-Length: 9\r\nX-Any: \xe4\t\r\n\r\n";
  const std::string body = "\0\r\n\r\n\xff\0\1\2"s;
  client->send(header);
  client->send(bodyOf(body));
  EXPECT_EQ(client->receive(), Connection::kComplete);
  EXPECT_EQ(client.content(), "answer");
  ASSERT_TRUE(server.waitForEnds(1));
  ASSERT_EQ(server.connections().size(), 1U);
  EXPECT_EQ(server.connections().front().received, header + body);
}

TEST(HTTPConnection, BodyWithRoomToSpare_OnlyItsLengthIsSent) {
  const FaultServer server(Scripts::answer("answer"));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  LW::RefBuffer body(4096);
  body->append("body", 4);
  client->send("POST / HTTP/1.0\r\nContent-Length: 4\r\n\r\n");
  client->send(body);
  EXPECT_EQ(client->receive(), Connection::kComplete);
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().front().received,
            "POST / HTTP/1.0\r\nContent-Length: 4\r\n\r\nbody");
}

TEST(HTTPConnection, TwoRequests_EachHasAConnection) {
  const FaultServer server(
      Scripts::inTurn({Scripts::answer("first"), Scripts::notFound(), Scripts::answer("third")}));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get("/1"), Connection::kComplete);
  EXPECT_EQ(client.content(), "first");
  EXPECT_EQ(client.get("/2"), Connection::kOtherStatus);
  EXPECT_EQ(client.content(), "");
  EXPECT_EQ(client.get("/3"), Connection::kComplete);
  EXPECT_EQ(client.content(), "third");
  EXPECT_EQ(server.requests(),
            (std::vector<std::string>{"GET /1 HTTP/1.0\r\n\r\n", "GET /2 HTTP/1.0\r\n\r\n",
                                      "GET /3 HTTP/1.0\r\n\r\n"}));
  EXPECT_EQ(server.connections().size(), 3U);
}

TEST(HTTPConnection, Answered_TheConnectionIsClosedAlsoWhenThePeerKeepsIt) {
  const FaultServer server(Scripts::answerWith([](const std::string&) { return "kept"; }));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  const Stopwatch watch;
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_TRUE(server.waitForEnds(1));
  EXPECT_TRUE(watch.tookNoTime());
}

TEST(HTTPConnection, ServerGoneBeforeTheSecondRequest_HasClosed) {
  HTTPClient client;
  {
    const FaultServer server(Scripts::answer("first"));
    ASSERT_TRUE(client.connect(server.port()));
    EXPECT_EQ(client.get(), Connection::kComplete);
  }
  EXPECT_EQ(client.get(), Connection::kClosed);
  EXPECT_EQ(client.content(), "");
}

TEST(HTTPConnection, AnswerBeforeTheRequestIsWhole_IsRead) {
  std::promise<void> answered;
  const FaultServer server([&answered](Peer& peer) {
    peer.write(Scripts::response("early"));
    answered.set_value();
    peer.waitForPeerToClose();
  });
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->send("POST / HTTP/1.0\r\nContent-Length: 100000\r\n\r\n");
  answered.get_future().wait();
  client->send(bodyOf(std::string(100'000, 'x')));
  EXPECT_EQ(client->receive(), Connection::kComplete);
  EXPECT_EQ(client.content(), "early");
}

// More than the kernel keeps for a peer: the rest cannot be sent. No signal ends the process.
TEST(HTTPConnection, PeerClosesWhileTheRequestIsSent_HasClosed) {
  const FaultServer server([](Peer& peer) {
    if (peer.readRequest()) peer.write(Scripts::response("early"));
  });
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  const LW::RefBuffer body = bodyOf(std::string(std::size_t{32} * 1024 * 1024, 'x'));
  const Stopwatch watch;
  client->send("POST / HTTP/1.0\r\n\r\n");
  client->send(body);
  client->send(body);
  EXPECT_EQ(client->receive(), Connection::kClosed);
  EXPECT_TRUE(watch.tookNoTime());
  EXPECT_EQ(client.content(), "");
}

// The descriptors of this process that a program it starts would inherit.
std::vector<int> inheritable() {
  std::vector<int> found;
  for (int descriptor = 3; descriptor < 1000; ++descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFD);
    if (flags != -1 && (flags & FD_CLOEXEC) == 0) found.push_back(descriptor);
  }
  return found;
}

TEST(HTTPConnection, Connection_IsNotInheritedByOtherPrograms) {
  const FaultServer server(Scripts::silence());
  const std::vector<int> before = inheritable();
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(inheritable(), before);
}

TEST(HTTPConnection, NobodyListens_IsNotConnected) {
  const ReservedPort port;
  HTTPClient client;
  const Stopwatch watch;
  EXPECT_FALSE(client.connect(port.number()));
  EXPECT_TRUE(watch.tookNoTime());
  EXPECT_EQ(client.get(), Connection::kClosed);
  // It does not try again by itself when somebody does.
  const Descriptor listener = bindTo(port.number());
  ASSERT_EQ(listen(listener.number(), 1), 0);
  client->maxQueryTime(1);
  EXPECT_EQ(client.get(), Connection::kClosed);
  // Nor does it go back to where it stood before.
  const FaultServer server(Scripts::answer("x"));
  ASSERT_TRUE(client.connect(server.port()));
  const ReservedPort other;
  EXPECT_FALSE(client.connect(other.number()));
  EXPECT_EQ(client.get(), Connection::kClosed);
  EXPECT_TRUE(server.waitForEnds(1));
  EXPECT_TRUE(server.requests().empty());
}

TEST(HTTPConnection, IPv6_IsSpoken) {
  if (!hasIPv6Loopback()) FAIL() << "the machine has no ::1";
  const FaultServer server(Scripts::answer("six"), {.address = "::1"});
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port(), "::1"));
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client.content(), "six");
}

TEST(HTTPConnection, ConnectedTwice_TheSecondStands) {
  const FaultServer first(Scripts::silence());
  const FaultServer second(Scripts::answer("second"));
  HTTPClient client;
  ASSERT_TRUE(client.connect(first.port()));
  ASSERT_TRUE(client.connect(second.port()));
  EXPECT_TRUE(first.waitForEnds(1));
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client.content(), "second");
  EXPECT_TRUE(first.requests().empty());
}

TEST(HTTPConnection, Disconnected_IsClosedAndNotOpenedAgain) {
  const FaultServer server(Scripts::silence());
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  client->send("GET / HTTP/1.0\r\n\r\n");
  client->disconnect();
  EXPECT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(client->receive(), Connection::kClosed);
  EXPECT_EQ(client.get(), Connection::kClosed);
  client->disconnect();
  EXPECT_EQ(server.connections().size(), 1U);
  EXPECT_TRUE(client.connect(server.port()));
}

TEST(HTTPConnection, DroppedHandle_ClosesTheConnection) {
  const FaultServer server(Scripts::silence());
  {
    HTTPClient client;
    ASSERT_TRUE(client.connect(server.port()));
    const HTTPClient copy = client;
    ASSERT_TRUE(server.waitForConnections(1));
  }
  EXPECT_TRUE(server.waitForEnds(1));
}

TEST(HTTPConnection, NeverConnected_HasClosed) {
  HTTPClient client;
  client->send("GET / HTTP/1.0\r\n\r\n");
  client->send(bodyOf("body"));
  EXPECT_EQ(client->receive(), Connection::kClosed);
  EXPECT_EQ(HTTPClient()->receive(), Connection::kClosed);
  HTTPClient()->disconnect();
}

TEST(HTTPConnection, ReceivedWithoutARequest_HasClosed) {
  const FaultServer server(Scripts::raw(Scripts::response("x")));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  const Stopwatch watch;
  EXPECT_EQ(client->receive(), Connection::kClosed);
  EXPECT_TRUE(watch.tookNoTime());
  // A body without its header is no request either.
  ASSERT_TRUE(client.connect(server.port()));
  client->send(bodyOf("GET / HTTP/1.0\r\n\r\n"));
  EXPECT_EQ(client->receive(), Connection::kClosed);
}

TEST(HTTPConnection, ReceivedTwice_TheSecondHasClosed) {
  const FaultServer server(Scripts::answer("once"));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client->receive(), Connection::kClosed);
  EXPECT_EQ(client.content(), "");
  EXPECT_EQ(client->contentReceived(), 0U);
}

TEST(HTTPConnection, Content_IsLentAndStaysUntilTheNextRequest) {
  const FaultServer server(Scripts::answer(std::string(100'000, 'x')));
  HTTPClient client;
  ASSERT_TRUE(client.connect(server.port()));
  ASSERT_EQ(client.get(), Connection::kComplete);
  const unsigned char* const bytes = client->content().data();
  EXPECT_EQ(client->content().data(), bytes);
  EXPECT_EQ(&client->content(), &client->content());
  const HTTPClient copy = client;
  EXPECT_EQ(copy->content().data(), bytes);
  EXPECT_EQ(client->content().length(), 100'000U);
  EXPECT_EQ(client->contentReceived(), 100'000U);
  client->send("GET / HTTP/1.0\r\n\r\n");
  EXPECT_EQ(client->content().length(), 0U);
  EXPECT_EQ(client->contentReceived(), 0U);
}

TEST(HTTPConnection, EmptyHandle_ThrowsWhatHandlesThrow) {
  const HTTP::RefConnection none;
  EXPECT_TRUE(none.empty());
  try {
    none->disconnect();
    ADD_FAILURE() << "no exception";
  } catch (const Exception& error) {
    EXPECT_EQ(error.code(), Exception::kEmptyHandle);
  }
  HTTP::RefStream stream;
  EXPECT_TRUE(stream.empty());
  try {
    const HTTP::RefConnection connection(stream);
    ADD_FAILURE() << "no exception";
  } catch (const Exception& error) {
    EXPECT_EQ(error.code(), Exception::kFailure);
  }
}

TEST(HTTPConnection, RealServer_IsUnderstood) {
  WebServer server;
  std::string large;
  for (std::size_t i = 0; i < std::size_t{3} * 1024 * 1024; ++i) {
    large += static_cast<char>(i * i >> 7);
  }
  writeFile(server.root() / "large", large);
  writeFile(server.root() / "empty", "");
  const Uri uri(server.url("/large"));
  HTTPClient client;
  client->maxContent(large.size());
  ASSERT_TRUE(client.connect(uri.port()));
  EXPECT_EQ(client.get("/large"), Connection::kComplete);
  EXPECT_TRUE(client.content() == large);
  EXPECT_EQ(client.get("/none"), Connection::kOtherStatus);
  EXPECT_EQ(client.get("/empty"), Connection::kComplete);
  EXPECT_EQ(client.content(), "");
  client->send("GET /large HTTP/1.1\r\nHost: localhost\r\nConnection: keep-alive\r\n\r\n");
  EXPECT_EQ(client->receive(), Connection::kComplete);
  EXPECT_TRUE(client.content() == large);
  client->maxContent(large.size() - 1);
  EXPECT_EQ(client.get("/large"), Connection::kTooLarge);
  server.stop();
  EXPECT_EQ(client.get("/large"), Connection::kClosed);
  server.start();
  EXPECT_EQ(client.get("/empty"), Connection::kComplete);
}

}  // namespace
}  // namespace Velantrix::Test
