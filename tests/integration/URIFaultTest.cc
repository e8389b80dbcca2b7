// CRLs by URI from servers that misbehave: nothing is found, nothing is cached, and it ends in time
// and in little memory.
#include "integration/URIFixture.h"
#include "support/Loopback.h"
#include "support/Process.h"

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Velantrix::Test {
namespace {

// AddressSanitizer keeps freed memory for a while, and shadows of all of it.
#if defined(__has_feature)
#define PKX509_HAS_FEATURE(feature) __has_feature(feature)
#else
#define PKX509_HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || PKX509_HAS_FEATURE(address_sanitizer)
constexpr long kSanitizerFactor = 4;
#else
constexpr long kSanitizerFactor = 1;
#endif

class URIFaults : public URIFixture {
 protected:
  /// One look-up in a process of its own.
  struct Fetch {
    std::size_t found = 0;
    long peak = 0;  ///< MiB
    std::chrono::milliseconds time{};
  };
  static Fetch fetchApart(const std::string& uri) {
    Fetch fetch;
    fetch.time = timeOf([&] {
      const BackgroundProcess process({PKX509_CRL_FETCHER, uri});
      if (!process.waitForOutput(
              [](const std::string& output) { return output.ends_with("\n"); })) {
        throw std::runtime_error("crl_fetcher: " + process.output());
      }
      std::istringstream(process.output()) >> fetch.found >> fetch.peak;
      fetch.peak /= 1024;
    });
    return fetch;
  }
};

struct Fault {
  const char* name;
  Script script;
};

TEST_F(URIFaults, FaultThatShowsAtOnce_FindsNothingAndCachesNothing) {
  const std::string body = der(crl(7).get());
  const std::string block = pem(crl(7).get());
  const std::string two = "Content-Length: " + std::to_string(body.size()) + "\r\n";
  const Fault rows[] = {
      {"closed at once", Scripts::closeAtOnce()},
      {"reset at once", Scripts::resetAtOnce()},
      {"closed after the request", Scripts::raw("")},
      {"reset after the request",
       [](Peer& peer) {
         peer.readRequest();
         peer.reset();
       }},
      {"status line only", Scripts::raw("HTTP/1.0 200 OK\r\n")},
      {"cut in the status line", Scripts::raw("HTTP/1.")},
      {"cut in the headers", Scripts::raw("HTTP/1.0 200 OK\r\nContent-Len")},
      {"no body", Scripts::answer("")},
      {"a whole CRL, and more was promised", Scripts::cutShort(body, body.size() + 1)},
      {"a whole CRL, and the reset comes before the end",
       [body](Peer& peer) {
         peer.readRequest();
         peer.write("HTTP/1.0 200 OK\r\n\r\n" + body);
         peer.reset();
       }},
      {"half a CRL", Scripts::cutShort(body.substr(0, body.size() / 2), body.size())},
      {"chunks cut short",
       Scripts::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1000\r\n" + body)},
      {"chunk sizes that are none",
       Scripts::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n" + body)},
      {"a promise of 4 GiB", Scripts::hugePromise()},
      {"a promise of 2^64 bytes",
       Scripts::raw("HTTP/1.0 200 OK\r\nContent-Length: 18446744073709551616\r\n\r\n" + body)},
      {"a length below 0", Scripts::raw("HTTP/1.0 200 OK\r\nContent-Length: -1\r\n\r\n" + body)},
      {"two lengths",
       Scripts::raw("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n" + two + "\r\n" + body)},
      {"endless headers", Scripts::endlessHeaders()},
      {"endless header line", Scripts::endlessHeaderLine()},
      {"page with 200", Scripts::html()},
      {"page with 404", Scripts::notFound()},
      {"redirect", Scripts::redirect("http://127.0.0.1:1/ca.crl")},
      {"CRL with 404", Scripts::answer(body, "404 Not Found")},
      {"CRL with 500", Scripts::answer(body, "500 Internal Server Error")},
      {"CRL with 203", Scripts::answer(body, "203 Non-Authoritative Information")},
      {"CRL with 206", Scripts::answer(body, "206 Partial Content")},
      {"CRL with 302", Scripts::answer(body, "302 Found", "Location: /\r\n")},
      {"204", Scripts::raw("HTTP/1.0 204 No Content\r\n\r\n")},
      {"no HTTP", Scripts::raw(body)},
      {"HTTP/0.9", Scripts::raw(block)},
      {"HTTP/2.0", Scripts::raw("HTTP/2.0 200 OK\r\n\r\n" + body)},
      {"garbage", Scripts::garbage()},
      {"garbage with 200", Scripts::answer(std::string(10000, '\xff'))},
      {"zeros", Scripts::answer(std::string(10000, '\0'))},
      {"DER that ends early", Scripts::answer(body.substr(0, body.size() - 1))},
      {"PEM without its end", Scripts::answer(block.substr(0, block.size() - 10))},
      {"PEM with nothing in it",
       Scripts::answer("-----BEGIN X509 CRL-----\n-----END X509 CRL-----\n")},
      {"PEM with garbage in it",
       Scripts::answer("-----BEGIN X509 CRL-----\nMIIB\n-----END X509 CRL-----\n")},
      {"a certificate in DER", Scripts::answer(der(ca.get()))},
      {"a certificate in PEM", Scripts::answer(pem(ca.get()))},
      {"a CRL with two numbers",
       Scripts::answer(der(makeCRL({.issuer = &ca,
                                    .number = 7,
                                    .rawExtensions = {{"2.5.29.20", false, "\x02\x01\x08"}}})
                               .get()))},
  };
  for (const Fault& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    EXPECT_LT(timeOf([&] { EXPECT_EQ(found(server.url("/ca.crl")), Numbers{}); }), kSlack);
    EXPECT_EQ(cacheNames(), std::vector<std::string>{});
    EXPECT_EQ(server.connections().size(), 1U);  // it is not tried again
    EXPECT_TRUE(server.waitForEnds(1)) << "the connection is left open";
  }
  EXPECT_EQ(log.text(), "");
}

// One object is read. What follows is the server's to choose, up to 64 MiB of it, and costs nothing.
TEST_F(URIFaults, WhatStandsBehindTheCRL_IsNotRead) {
  const std::string body = der(crl(7).get());
  const std::string block = pem(crl(7).get());
  std::string many;
  while (many.size() < 8000000) many += der(expiredCRL(1).get());
  const struct {
    const char* name;
    std::string body;
  } rows[] = {
      {"a byte", body + "x"},
      {"a line end", body + "\r\n"},
      {"CRLs", body + many},
      {"CRLs that end early", body + many + "\x30\x82"},
      {"a broken PEM block", block + "-----BEGIN X509 CRL-----\nMIIB\n-----END X509 CRL-----\n"},
      {"another CRL in PEM", block + pem(crl(8).get())},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    clearPrivateView();
    const FaultServer server(Scripts::answer(row.body));
    EXPECT_EQ(found(server.url("/ca.crl")), Numbers{"7"});
    EXPECT_TRUE(isCached(server.url("/ca.crl"), crl(7)));
  }
}

TEST_F(URIFaults, FaultOverTls_FindsNothingAndCachesNothing) {
  installClient(pem(client.get()), pem(client.key.get()));
  const std::string body = der(crl(7).get());
  const Fault rows[] = {
      {"closed at once", Scripts::closeAtOnce()},
      {"reset at once", Scripts::resetAtOnce()},
      {"a whole CRL, and more was promised", Scripts::cutShort(body, body.size() + 1)},
      // Whoever cuts the connection decides where such an answer ends.
      {"cut without a farewell, and no length",
       [body](Peer& peer) {
         peer.readRequest();
         peer.write("HTTP/1.0 200 OK\r\n\r\n" + body);
         peer.cut();
       }},
      {"garbage", Scripts::garbage()},
      {"endless headers", Scripts::endlessHeaders()},
  };
  for (const Fault& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script, {.certificate = &tls});
    EXPECT_LT(timeOf([&] { EXPECT_EQ(found(server.url("/ca.crl")), Numbers{}); }), kSlack);
    EXPECT_EQ(cacheNames(), std::vector<std::string>{});
  }
  const FaultServer plain([&](Peer& peer) { peer.write(Scripts::response(body)); });
  EXPECT_EQ(found("https://127.0.0.1:" + std::to_string(plain.port()) + "/"), Numbers{});
  const FaultServer secure(Scripts::answer(body), {.certificate = &tls});
  EXPECT_EQ(found("http://127.0.0.1:" + std::to_string(secure.port()) + "/"), Numbers{});
}

TEST_F(URIFaults, HostThatIsNotThere_FindsNothing) {
  const ReservedPort closed;
  for (const std::string& uri :
       {"http://127.0.0.1:" + closed.text() + "/ca.crl", std::string("http:///ca.crl"),
        std::string("http:/ca.crl"), std::string("http:ca.crl")}) {
    SCOPED_TRACE(uri);
    EXPECT_LT(timeOf([&] { EXPECT_EQ(found(uri), Numbers{}); }), kSlack);
  }
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
  EXPECT_EQ(log.text(), "");
}

TEST_F(URIFaults, Redirect_IsNotFollowed) {
  const FaultServer target(Scripts::answer(der(crl(7).get())));
  for (const char* const status :
       {"301 Moved Permanently", "302 Found", "303 See Other", "307 Temporary Redirect",
        "308 Permanent Redirect", "300 Multiple Choices", "200 OK"}) {
    SCOPED_TRACE(status);
    const FaultServer server(
        Scripts::answer("elsewhere", status, "Location: " + target.url("/ca.crl") + "\r\n"));
    EXPECT_EQ(found(server.url("/ca.crl")), Numbers{});
  }
  EXPECT_EQ(target.connections().size(), 0U);
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
}

TEST_F(URIFaults, WhatWasCached_StaysWhenTheServerMisbehaves) {
  const FaultServer server(
      Scripts::inTurn({Scripts::answer(der(expiredCRL(7).get())), Scripts::html(),
                       Scripts::garbage(), Scripts::closeAtOnce(), Scripts::answer("")}));
  const std::string uri = server.url("/ca.crl");
  EXPECT_EQ(found(uri), Numbers{"7"});
  for (int i = 0; i < 4; ++i) EXPECT_EQ(found(uri), Numbers{});
  EXPECT_TRUE(isCached(uri, expiredCRL(7)));
}

// ------------------------------------------------------------------------------------------ memory

TEST_F(URIFaults, EndlessBodyOrAHugePromise_IsBoundedInMemory) {
  const ReservedPort closed;
  const Fetch nothing = fetchApart("http://127.0.0.1:" + closed.text() + "/");
  ASSERT_GT(nothing.peak, 0);
  const struct {
    const char* name;
    Script script;
    long most;  ///< MiB
  } rows[] = {
      // 64 MiB are read and grow by halves.
      {"endless body", Scripts::endlessBody(), 128},
      {"endless chunks", Scripts::endlessChunks(), 128},
      {"a promise of 4 GiB", Scripts::hugePromise(), 4},
      {"endless headers", Scripts::endlessHeaders(), 4},
      {"endless header line", Scripts::endlessHeaderLine(), 4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FaultServer server(row.script);
    const Fetch fetch = fetchApart(server.url("/ca.crl"));
    EXPECT_EQ(fetch.found, 0U);
    EXPECT_LE(fetch.peak - nothing.peak, row.most * kSanitizerFactor);
    EXPECT_LE(fetch.time, 15s + kSlack);
  }
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
}

// -------------------------------------------------------------------------------------------- time

// The bounds that are fixed, with servers that keep one waiting: all at once, since it takes that
// long.
TEST_F(URIFaults, ServerThatIsTooSlow_IsGivenFifteenSecondsAndTenForAHandshake) {
  const std::string slowly = Scripts::response(der(crl(7).get()));
  const struct {
    const char* name;
    Script script;
    const char* scheme = "http";
    std::chrono::seconds bound = 15s;
  } rows[] = {
      {"silence", Scripts::silence()},
      {"one byte a second", Scripts::trickle(slowly, 1s)},
      {"one byte of the body a second",
       [slowly](Peer& peer) {
         if (!peer.readRequest()) return;
         const std::size_t header = slowly.find("\r\n\r\n") + 4;
         peer.write(slowly.substr(0, header));
         peer.writeSlowly(slowly.substr(header), 1s);
       }},
      {"a whole CRL without an end",
       [slowly](Peer& peer) {
         if (!peer.readRequest()) return;
         peer.write("HTTP/1.0 200 OK\r\n\r\n" + slowly.substr(slowly.find("\r\n\r\n") + 4));
         peer.waitForPeerToClose();
       }},
      {"no TLS handshake", Scripts::silence(), "https", 10s},
  };
  installClient(pem(client.get()), pem(client.key.get()));
  std::list<std::thread> lookups;
  for (const auto& row : rows) {
    lookups.emplace_back([&row] {
      const FaultServer server(row.script);
      const std::string uri =
          std::string(row.scheme) + "://127.0.0.1:" + std::to_string(server.port());
      const auto time = timeOf([&] { EXPECT_EQ(found(uri), Numbers{}); });
      EXPECT_GE(time, row.bound) << row.name;
      EXPECT_LE(time, row.bound + kSlack) << row.name;
    });
  }
  // A revocation that comes too slowly is not found, and the certificate not valid.
  lookups.emplace_back([this] {
    std::string list;
    const FaultServer server([&](Peer& peer) { Scripts::trickle(list, 1s)(peer); });
    const Issued leaf =
        issue({.issuer = &ca, .crlDistributionPoints = {{.fullNames = {"URI:" + server.url()}}}});
    list = Scripts::response(der(makeCRL({.issuer = &ca, .revoked = {{.serial = leaf}}}).get()));
    World world;
    world.trust(ca);
    EXPECT_EQ(Verifier(world.store, handle(leaf), false).isValid(), X509_V_ERR_UNABLE_TO_GET_CRL);
  });
  for (std::thread& lookup : lookups) lookup.join();
  EXPECT_EQ(cacheNames(), std::vector<std::string>{});
}

}  // namespace
}  // namespace Velantrix::Test
