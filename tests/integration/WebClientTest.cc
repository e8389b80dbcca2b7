// What the client for the web sends, what it makes of answers, and where it lets itself be led.
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/http/WebClient.h"
#include "foundation/run/VerificationRun.h"
#include "integration/HTTPClient.h"
#include "integration/WebClientFixture.h"
#include "support/FaultScripts.h"
#include "support/Loopback.h"
#include "support/Stopping.h"

#include <pkx509/AddressPolicy.h>

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Crypto::PKX509::VerificationRun;
using Kind = HTTP::Failure::Kind;
using Policy = Crypto::PKX509::AddressPolicy;

std::string placeOf(const FaultServer& server) {
  return "127.0.0.1:" + std::to_string(server.port());
}

TEST(WebClient, Get_IsSentWithHostPathAndQueryAsTheURIHasThem) {
  const struct {
    const char* what;
    std::string path;
    std::string target;
  } rows[] = {
      {"path", "/ca.crl", "/ca.crl"},
      {"no path", "", "/"},
      {"query", "/certsrv/get.asp?ID=1&Type=%20%2e", "/certsrv/get.asp?ID=1&Type=%20%2e"},
      {"query without a path", "?a=b?c", "/?a=b?c"},
      {"empty query", "/?", "/?"},
      {"dots and encodings stay", "/a/../b/%7Ec//d.crl", "/a/../b/%7Ec//d.crl"},
      {"fragment is nobody's business", "/a?b#c?d", "/a?b"},
  };
  for (const auto& row : rows) {
    const FaultServer server(Scripts::answer("body"));
    const HTTP::WebAnswer answer =
        HTTP::ask({.uri = Uri(server.url(row.path)), .accept = "application/pkix-crl"}, {});
    EXPECT_TRUE(answer.isComplete()) << row.what;
    EXPECT_EQ(contentOf(answer), "body") << row.what;
    EXPECT_EQ(answer.received, 4U) << row.what;
    EXPECT_EQ(answer.failure, HTTP::Failure()) << row.what;
    ASSERT_EQ(server.requests().size(), 1U) << row.what;
    EXPECT_EQ(server.requests().front(),
              "GET " + row.target + " HTTP/1.1\r\nHost: " + placeOf(server) +
                  "\r\nUser-Agent: libvlxpkx509/" PKX509_VERSION
                  "\r\nAccept: application/pkix-crl\r\nAccept-Encoding: identity\r\n"
                  "Connection: close\r\n\r\n")
        << row.what;
  }
}

TEST(WebClient, Post_IsSentWithItsBodyAndFollowsNoRedirect) {
  const std::string body = "\0\r\n\r\n\xff"s;
  const FaultServer server(
      Scripts::inTurn({Scripts::answer("answer"), Scripts::redirect("/elsewhere")}));
  const HTTP::WebRequest request{.uri = Uri(server.url("/ocsp?x")),
                                 .accept = "application/ocsp-response",
                                 .body = body,
                                 .contentType = "application/ocsp-request"};
  EXPECT_EQ(contentOf(HTTP::ask(request, {})), "answer");
  EXPECT_EQ(server.connections().at(0).received,
            "POST /ocsp?x HTTP/1.1\r\nHost: " + placeOf(server) +
                "\r\nUser-Agent: libvlxpkx509/" PKX509_VERSION
                "\r\nAccept: application/ocsp-response\r\nAccept-Encoding: identity\r\n"
                "Content-Type: application/ocsp-request\r\nContent-Length: 6\r\n"
                "Connection: close\r\n\r\n" +
                body);
  const HTTP::WebAnswer redirected = HTTP::ask(request, {});
  EXPECT_EQ(redirected.failure, (HTTP::Failure{Kind::kStatus, 0, 302, "Found"}));
  EXPECT_EQ(redirected.redirects, 0U);
  EXPECT_EQ(server.connections().size(), 2U);
}

TEST(WebClient, Answers_AreReadInEveryForm) {
  const std::string most(1000, 'x');
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const struct {
    const char* what;
    std::string bytes;
    std::string content;
    HTTP::Failure failure = {};
    std::string problem = {};
  } rows[] = {
      {"length", Scripts::response("body"), "body"},
      {"until close", "HTTP/1.0 200 OK\r\n\r\nbody", "body"},
      {"chunks", chunked + "2;x=y\r\nbo\r\n2\r\ndy\r\n0\r\nX-Sum: 1\r\n\r\n", "body"},
      {"as it is", ok + "Content-Encoding: Identity\r\n\r\nbody", "body"},
      {"after others that say nothing yet",
       "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n" + ok +
           "\r\nbody",
       "body"},
      {"exactly the most", Scripts::response(most), most},
      {"another protocol",
       "HTTP/1.1 101 Switching\r\n\r\nbody",
       "",
       {Kind::kStatus, 0, 101, "Switching"},
       "HTTP status 101"},
      {"no end of what says nothing",
       [] {
         std::string all;
         for (int i = 0; i < 20; ++i) all += "HTTP/1.1 100 Continue\r\n\r\n";
         return all;
       }(),
       "",
       {Kind::kStatus, 0, 100, "Continue"},
       "HTTP status 100"},
      {"more than the most",
       Scripts::response(most + "x"),
       "",
       {Kind::kTooLarge, 0, 0, "content above 1000 octets"},
       "the answer is too large: content above 1000 octets"},
      {"more in chunks",
       chunked + "3e9\r\n" + most + "x\r\n0\r\n\r\n",
       "",
       {Kind::kTooLarge, 0, 0, "content above 1000 octets"},
       "the answer is too large: content above 1000 octets"},
      {"packed",
       ok + "Content-Encoding: gzip\r\n\r\nbody",
       "",
       {Kind::kEncoding, 0, 0, "gzip"},
       "content in an encoding that was not asked for"},
      {"packed twice",
       ok + "Content-Encoding: identity\r\nContent-Encoding: br\r\n\r\nbody",
       "",
       {Kind::kEncoding, 0, 0, "identity, br"},
       "content in an encoding that was not asked for"},
      {"an error page larger than the most",
       Scripts::response(most + "x", "404 Not Found"),
       "",
       {Kind::kStatus, 0, 404, "Not Found"},
       "HTTP status 404"},
      {"304 that nobody asked for",
       "HTTP/1.1 304 Not Modified\r\n\r\n",
       "",
       {Kind::kStatus, 0, 304, "Not Modified"},
       "HTTP status 304"},
      {"cut short",
       "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf",
       "",
       {Kind::kCutShort, 0, 0, "the server closed the connection"},
       "the answer ends in the middle"},
      {"mail server",
       "220 mail.example.com ESMTP\r\n\r\n",
       "",
       {Kind::kMalformed, 0, 0, "bad version"},
       "the answer is not HTTP"},
      {"another version",
       "HTTP/1.2 200 OK\r\n\r\n",
       "",
       {Kind::kMalformed, 0, 0, "bad version"},
       "the answer is not HTTP"},
      {"nothing",
       "",
       "",
       {Kind::kClosed, 0, 0, "the server closed the connection"},
       "the server closed the connection without an answer"},
  };
  for (const auto& row : rows) {
    for (const bool trickled : {false, true}) {
      if (trickled && row.bytes.size() > 200) continue;
      const FaultServer server(trickled ? Scripts::trickle(row.bytes, 0ms)
                                        : Scripts::raw(row.bytes));
      const HTTP::WebAnswer answer =
          HTTP::ask({.uri = Uri(server.url())}, {.maxContent = most.size()});
      EXPECT_EQ(answer.isComplete(), row.failure.kind == Kind::kNone) << row.what;
      EXPECT_EQ(contentOf(answer), row.content) << row.what;
      expectFailure(answer.failure, row.failure, row.what);
      EXPECT_EQ(answer.problem, row.problem) << row.what;
      EXPECT_EQ(answer.maxContent, most.size()) << row.what;
    }
  }
}

TEST(WebClient, Validators_AreKeptWhereTheyAreFitAndSentBack) {
  const std::string date = "Sun, 06 Nov 1994 08:49:37 GMT";
  const FaultServer server(Scripts::inTurn(
      {Scripts::answer("body", "200 OK", "ETag: \"a b\"\r\nLast-Modified: " + date + "\r\n"),
       Scripts::raw("HTTP/1.1 304 Not Modified\r\nETag: \"c\"\r\nCache-Control: max-age=7\r\n\r\n"),
       Scripts::answer("body", "200 OK",
                       "ETag: \"" + std::string(255, 'x') + "\"\r\nLast-Modified: \xe4\r\n")}));
  const Uri uri(server.url());
  const HTTP::WebAnswer first = HTTP::ask({.uri = uri}, {});
  EXPECT_EQ(first.validators, (HTTP::Validators{"\"a b\"", date}));
  EXPECT_EQ(first.maxAge, std::nullopt);

  const HTTP::WebAnswer second = HTTP::ask({.uri = uri, .validators = first.validators}, {});
  EXPECT_TRUE(second.notModified);
  EXPECT_FALSE(second.isComplete());
  EXPECT_EQ(second.failure, HTTP::Failure());
  EXPECT_EQ(second.validators, (HTTP::Validators{"\"c\"", ""}));
  EXPECT_EQ(second.maxAge, 7s);
  EXPECT_NE(server.requests().at(1).find(
                "\r\nIf-None-Match: \"a b\"\r\nIf-Modified-Since: " + date + "\r\n"),
            std::string::npos);

  const HTTP::WebAnswer third =
      HTTP::ask({.uri = uri, .validators = {.etag = "x\r\ny", .lastModified = "\x7f"}}, {});
  EXPECT_TRUE(third.isComplete());
  EXPECT_TRUE(third.validators.empty());
  EXPECT_EQ(server.requests().at(2).find("If-"), std::string::npos);
  // Nobody was asked under a condition, so that nothing can be unmodified.
  const FaultServer liar(Scripts::raw("HTTP/1.1 304 Not Modified\r\n\r\n"));
  EXPECT_FALSE(HTTP::ask({.uri = Uri(liar.url()), .validators = {.etag = "\n"}}, {}).notModified);
}

TEST(WebClient, Validators_FitAreShortAndPrintable) {
  EXPECT_TRUE(HTTP::Validators::isFit("\"x y~\""));
  EXPECT_TRUE(HTTP::Validators::isFit(std::string(256, 'x')));
  for (const std::string& text :
       {""s, std::string(257, 'x'), "a\tb"s, "a\nb"s, "a\x7f"s, "\xe4"s, "a\0b"s}) {
    EXPECT_FALSE(HTTP::Validators::isFit(text)) << text;
  }
}

// ---- Redirects

TEST(WebClient, Redirects_AreFollowedToWhereTheyLead) {
  for (const char* status : {"301", "302", "303", "307", "308"}) {
    const FaultServer target(Scripts::answer("body"));
    const struct {
      const char* what;
      std::string location;
      std::string path;
      bool same;
    } rows[] = {
        {"absolute", target.url("/x?y"), "/x?y", false},
        {"of another host", "//" + placeOf(target) + "/x", "/x", false},
        {"absolute path", "/x/../y", "/y", true},
        {"relative", "../x?y", "/x?y", true},
        {"query", "?y", "/a/b?y", true},
        {"fragment", "x#y", "/a/x", true},
    };
    for (const auto& row : rows) {
      const std::string page(5000, 'x');
      const FaultServer server(Scripts::inTurn(
          {Scripts::answer(page, status + " Moved"s, "Location: " + row.location + "\r\n"),
           Scripts::answer("body")}));
      const HTTP::WebAnswer answer = HTTP::ask(
          {.uri = Uri(server.url("/a/b?c")), .validators = {.etag = "\"t\""}}, {.maxContent = 100});
      EXPECT_EQ(contentOf(answer), "body") << status << ' ' << row.what << answer.problem;
      EXPECT_EQ(answer.redirects, 1U) << row.what;
      EXPECT_EQ(answer.received, 4U) << row.what;
      const FaultServer& asked = row.same ? server : target;
      EXPECT_EQ(answer.last, Uri("http://" + placeOf(asked) + row.path)) << row.what;
      const std::string request = asked.requests().back();
      EXPECT_TRUE(
          request.starts_with("GET " + row.path + " HTTP/1.1\r\nHost: " + placeOf(asked) + "\r\n"))
          << request;
      EXPECT_NE(request.find("\r\nIf-None-Match: \"t\"\r\n"), std::string::npos) << request;
    }
  }
}

TEST(WebClient, RedirectsThatAreNotFollowed_AreAFailureWithTheStatus) {
  const struct {
    const char* what;
    std::string location;
    std::string detail;
  } rows[] = {
      {"none", "", "redirected to no place that can be asked"},
      {"another scheme", "Location: ldap://127.0.0.1/x\r\n",
       "redirected to no place that can be asked"},
      {"a file", "Location: file:///etc/passwd\r\n", "redirected to no place that can be asked"},
      {"no host", "Location: http:///x\r\n", "redirected to no place that can be asked"},
      {"no URI", "Location: /a b\r\n", "redirected to no place that can be asked"},
      {"two of them", "Location: /a\r\nLocation: /b\r\n",
       "redirected to no place that can be asked"},
      {"itself", "Location: /A/../%61#x\r\n", "redirected in a circle"},
  };
  for (const auto& row : rows) {
    const FaultServer server(Scripts::answer("page", "302 Found", row.location));
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url("/a"))}, {});
    expectFailure(answer.failure, {Kind::kStatus, 0, 302, row.detail}, row.what);
    EXPECT_EQ(answer.problem, "HTTP status 302") << row.what;
    EXPECT_EQ(answer.redirects, 0U) << row.what;
    EXPECT_EQ(contentOf(answer), "") << row.what;
    EXPECT_EQ(server.connections().size(), 1U) << row.what;
  }
}

Script countingRedirects(unsigned int most) {
  return [most](Peer& peer) {
    if (!peer.readRequest()) return;
    const std::string next = "Location: /" + std::to_string(peer.number() + 1) + "\r\n";
    peer.write(peer.number() < most ? Scripts::response("", "302 Found", next)
                                    : Scripts::response("body"));
  };
}

TEST(WebClient, FiveRedirects_AreFollowedAndASixthIsNot) {
  const FaultServer five(countingRedirects(5));
  EXPECT_EQ(contentOf(HTTP::ask({.uri = Uri(five.url("/0"))}, {})), "body");
  const FaultServer six(countingRedirects(6));
  const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(six.url("/0"))}, {});
  expectFailure(answer.failure, {Kind::kStatus, 0, 302, "redirected too often"}, "six");
  EXPECT_EQ(answer.redirects, 5U);
  EXPECT_EQ(six.connections().size(), 6U);
}

TEST(WebClient, CircleOfTwo_EndsWhereItCloses) {
  const FaultServer server(Scripts::inTurn({Scripts::redirect("/b"), Scripts::redirect("/a")}));
  const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url("/a"))}, {});
  expectFailure(answer.failure, {Kind::kStatus, 0, 302, "redirected in a circle"}, "circle");
  EXPECT_EQ(server.connections().size(), 2U);
}

TEST(WebClient, AddressPolicy_JudgesEveryHop) {
  const FaultServer server(Scripts::redirect("http://10.1.2.3/"));
  const Uri uri(server.url());
  {
    const AddressAdmission admission(Policy::publicOnly().allow(Policy::Kind::kLoopback));
    const HTTP::WebAnswer answer = HTTP::ask({.uri = uri}, {});
    expectFailure(answer.failure, {Kind::kRefusedAddress, 0, 0, "a private address: 10.1.2.3"},
                  "second hop");
    EXPECT_EQ(answer.problem, "could not connect");
    EXPECT_EQ(answer.redirects, 1U);
    EXPECT_EQ(answer.last, Uri("http://10.1.2.3/"));
  }
  const AddressAdmission admission(Policy::publicOnly());
  expectFailure(HTTP::ask({.uri = uri}, {}).failure,
                {Kind::kRefusedAddress, 0, 0, "a loopback address: 127.0.0.1"}, "first hop");
  EXPECT_EQ(server.connections().size(), 1U);
}

// ---- Time

TEST(WebClient, EveryFault_EndsInItsTime) {
  const std::string right = Scripts::response(std::string(1000, 'x'));
  const struct {
    const char* what;
    Script script;
  } rows[] = {
      {"silence", Scripts::silence()},
      {"header, trickled", Scripts::trickle(right, 10ms)},
      {"content, trickled",
       [](Peer& peer) {
         if (!peer.readRequest()) return;
         peer.write("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
         peer.writeSlowly(std::string(1000, 'x'), 10ms);
       }},
      {"silence in the middle", Scripts::hugePromise()},
      {"redirects, each of which takes its time",
       [](Peer& peer) {
         if (!peer.readRequest()) return;
         peer.pause(100ms);
         peer.write(Scripts::response("", "302 Found",
                                      "Location: /" + std::to_string(peer.number()) + "\r\n"));
       }},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    const Stopwatch watch;
    const HTTP::WebAnswer answer =
        HTTP::ask({.uri = Uri(server.url())},
                  {.queryTime = 250ms, .maxContent = std::size_t{5} * 1024 * 1024 * 1024});
    expectFailure(answer.failure, {Kind::kTimedOut, ETIMEDOUT, 0, "no answer in 250 ms"}, row.what);
    EXPECT_EQ(answer.problem, "no answer in 250 ms") << row.what;
    EXPECT_TRUE(watch.took(250ms)) << row.what;
    EXPECT_GE(answer.taken, 250ms) << row.what;
    EXPECT_EQ(contentOf(answer), "") << row.what;
  }
}

TEST(WebClient, TimeOfTheVerification_EndsItToo) {
  const FaultServer server(Scripts::silence());
  VerificationRun run(nullptr, {.networkTime = 200ms});
  const Stopwatch watch;
  const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url())}, {});
  expectFailure(
      answer.failure,
      {Kind::kTimedOut, ETIMEDOUT, 0, "no answer in the time that was left for the network"},
      "silence");
  EXPECT_TRUE(watch.took(200ms));
  EXPECT_EQ(HTTP::ask({.uri = Uri(server.url())}, {}).failure.kind, Kind::kNoTime);
  EXPECT_EQ(server.connections().size(), 1U);
}

TEST(WebClient, AskedToStop_EndsAtOnceAndIsNotTheHostsFailure) {
  const struct {
    const char* what;
    Script script;
    unsigned int requests;  // until somebody asks
  } rows[] = {
      {"silence", Scripts::silence(), 1},
      {"content, trickled", Scripts::trickle(Scripts::response(std::string(1000, 'x')), 10ms), 1},
      {"silence behind a redirect", Scripts::inTurn({Scripts::redirect("/x"), Scripts::silence()}),
       2},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script);
    Stopping stopping([&] { EXPECT_TRUE(server.waitForRequests(row.requests)) << row.what; });
    const Cancellation here(stopping.token());
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url())}, {});
    EXPECT_TRUE(stopping.wasHeardInTime()) << row.what;
    EXPECT_EQ(answer.failure, HTTP::Failure{.kind = Kind::kCancelled}) << row.what;
    EXPECT_EQ(answer.problem, "somebody asked to stop") << row.what;
    EXPECT_EQ(contentOf(answer), "") << row.what;
  }
}

TEST(WebClient, EndlessAnswers_AreTooLarge) {
  for (const Script& script : {Scripts::endlessBody(), Scripts::endlessChunks(),
                               Scripts::endlessHeaders(), Scripts::endlessHeaderLine()}) {
    const FaultServer server(script);
    const MemoryPeak peak;
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url())}, {});
    EXPECT_EQ(answer.failure.kind, Kind::kTooLarge);
    EXPECT_LT(peak.resident(), std::size_t{16} * 1024 * 1024);
  }
}

TEST(WebClient, WhatNobodyServes_IsToldInFull) {
  const ReservedPort port;
  const HTTP::WebAnswer refused =
      HTTP::ask({.uri = Uri("http://127.0.0.1:" + port.text() + "/")}, {});
  expectFailure(refused.failure, {Kind::kConnect, ECONNREFUSED, 0, "Connection refused"}, "port");
  EXPECT_EQ(refused.problem, "could not connect");
  EXPECT_EQ(refused.redirects, 0U);
  const HTTP::WebAnswer noHost = HTTP::ask({.uri = Uri("http:/x")}, {});
  EXPECT_EQ(noHost.failure.kind, Kind::kResolve);
  EXPECT_EQ(noHost.problem, "could not resolve the host");
  EXPECT_EQ(HTTP::ask({.uri = Uri("ldap://127.0.0.1/x")}, {}).problem, "not spoken");
  EXPECT_EQ(HTTP::ask({}, {}).problem, "not spoken");
}

}  // namespace
}  // namespace Velantrix::Test
