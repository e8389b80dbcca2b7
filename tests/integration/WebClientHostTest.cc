// The client for the web and hosts that have names, several addresses, and others beside them.
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/http/WebClient.h"
#include "integration/DnsServer.h"
#include "integration/HTTPClient.h"
#include "integration/WebClientFixture.h"
#include "support/FaultScripts.h"
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Pki.h"
#include "support/WebServer.h"

#include <pkx509/AddressPolicy.h>

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Kind = HTTP::Failure::Kind;
using Policy = Crypto::PKX509::AddressPolicy;

class WebClientHost : public testing::Test {
 protected:
  WebClientHost() {
    writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    writeFile("/etc/hosts", "127.0.0.1 one.example.test two.example.test\n");
  }
};

DnsServer::Handler at(const std::vector<std::string>& addresses) {
  return [addresses](const DnsQuery& query) { return answerTo(query, addresses); };
}

TEST_F(WebClientHost, RealServer_HasVirtualHostsQueriesRedirectsAndConditions) {
  const WebServer server(
      {.virtualHosts = {"one.example.test", "two.example.test"},
       .directives =
           "    location = /query { try_files /$arg_ca.crl =404; }\n"
           "    location = /moved { return 301 http://two.example.test:$server_port/crl; }\n"
           "    location = /here { return 307 /query?ca=sub; }\n"
           "    location = /packed { add_header Content-Encoding gzip; "
           "try_files /sub.crl =404; }\n"});
  writeFile(server.root() / "one.example.test" / "crl", "one");
  writeFile(server.root() / "two.example.test" / "crl", "two");
  writeFile(server.root() / "root.crl", "root");
  writeFile(server.root() / "sub.crl", "sub");
  const std::string port = server.url("").substr(std::string("http://127.0.0.1").size());
  const struct {
    std::string uri;
    std::string content;
  } rows[] = {
      {"http://one.example.test" + port + "/crl", "one"},
      {"http://two.example.test" + port + "/crl", "two"},
      {server.url("/query?ca=root"), "root"},
      {server.url("/query?ca=sub"), "sub"},
      {server.url("/moved"), "two"},
      {server.url("/here"), "sub"},
      {server.url("/packed"), ""},
      {server.url("/crl"), ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(contentOf(HTTP::ask({.uri = Uri(row.uri)}, {})), row.content) << row.uri;
  }

  const Uri uri(server.url("/query?ca=root"));
  const HTTP::WebAnswer first = HTTP::ask({.uri = uri}, {});
  EXPECT_FALSE(first.validators.etag.empty());
  EXPECT_FALSE(first.validators.lastModified.empty());
  const HTTP::WebAnswer second = HTTP::ask({.uri = uri, .validators = first.validators}, {});
  EXPECT_TRUE(second.notModified);
  EXPECT_EQ(second.validators, first.validators);
  EXPECT_EQ(second.received, 0U);
  writeFile(server.root() / "root.crl", "newer");
  const HTTP::WebAnswer third = HTTP::ask({.uri = uri, .validators = first.validators}, {});
  EXPECT_EQ(contentOf(third), "newer");
  EXPECT_NE(third.validators, first.validators);
}

TEST_F(WebClientHost, UsualPorts_AreLeftOutAndTheNameIsTold) {
  const Issued certificate = issueCA("CN=any");
  const FaultServer plain(Scripts::answer("plain"), {.port = 80});
  const FaultServer secure(Scripts::answer("secure"), {.certificate = &certificate, .port = 443});
  const struct {
    const char* uri;
    const FaultServer& server;
    const char* content;
    const char* host;
  } rows[] = {
      {"http://one.example.test/", plain, "plain", "one.example.test"},
      {"http://One.example.test:80/", plain, "plain", "One.example.test"},
      {"https://one.example.test/", secure, "secure", "one.example.test"},
      {"https://one.example.test:443/", secure, "secure", "one.example.test"},
      {"http://one.example.test:0/", plain, "plain", "one.example.test"},
  };
  for (const auto& row : rows) {
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(row.uri)}, {});
    EXPECT_EQ(contentOf(answer), row.content) << row.uri << answer.problem;
    ASSERT_FALSE(row.server.requests().empty()) << row.uri;
    EXPECT_NE(row.server.requests().back().find("\r\nHost: " + std::string(row.host) + "\r\n"),
              std::string::npos)
        << row.server.requests().back();
  }
  for (const FaultConnection& seen : secure.connections()) {
    EXPECT_EQ(seen.serverName, "one.example.test");
  }
}

TEST_F(WebClientHost, EveryAddress_IsTriedInTurn) {
  const FaultServer server(Scripts::answer("body"), {.address = "127.0.0.3"});
  const DeafListener deaf(server.port(), "127.0.0.2");
  const DnsServer names(at({"127.0.0.4", "127.0.0.2", "127.0.0.3"}));
  const Uri uri("http://host.example.test:" + std::to_string(server.port()) + "/");
  const Stopwatch watch;
  const HTTP::WebAnswer answer = HTTP::ask({.uri = uri}, {.connectTime = 200ms});
  EXPECT_EQ(contentOf(answer), "body") << answer.problem;
  EXPECT_EQ(answer.failure, HTTP::Failure());
  EXPECT_EQ(answer.problem, "");
  EXPECT_TRUE(watch.took(200ms));  // by the one that does not answer
  const AddressAdmission admission(Policy::publicOnly());
  EXPECT_EQ(HTTP::ask({.uri = uri}, {}).failure.kind, Kind::kRefusedAddress);
}

// One handshake that does not end, one that fails and one that does not begin.
TEST_F(WebClientHost, AddressThatDoesNotShakeHands_IsFollowedByTheNext) {
  const Issued certificate = issueCA("CN=any");
  const FaultServer server(Scripts::answer("body"),
                           {.certificate = &certificate, .address = "127.0.0.4"});
  const FaultServer silent([](Peer& peer) { peer.waitForPeerToClose(); },
                           {.address = "127.0.0.2", .port = server.port()});
  const FaultServer plain(
      [](Peer& peer) {
        if (peer.write(Scripts::response("plain"))) peer.waitForPeerToClose();
      },
      {.address = "127.0.0.3", .port = server.port()});
  const DnsServer names(at({"127.0.0.2", "127.0.0.3", "127.0.0.4"}));
  const Uri uri("https://host.example.test:" + std::to_string(server.port()) + "/");
  EXPECT_EQ(contentOf(HTTP::ask({.uri = uri}, {.connectTime = 300ms})), "body");
  EXPECT_EQ(silent.connections().size(), 1U);
  EXPECT_EQ(plain.connections().size(), 1U);
}

// The last one would answer, and its turn does not come.
TEST_F(WebClientHost, ManyAddressesThatDoNotAnswer_TakeNoLongerThanOneMay) {
  const FaultServer last(Scripts::answer("body"), {.address = "127.0.0.4"});
  const DeafListener first(last.port(), "127.0.0.2");
  const DeafListener second(last.port(), "127.0.0.3");
  const DnsServer names(at({"127.0.0.2", "127.0.0.3", "127.0.0.4"}));
  const Uri uri("http://host.example.test:" + std::to_string(last.port()) + "/");
  const Stopwatch watch;
  const HTTP::WebAnswer answer =
      HTTP::ask({.uri = uri}, {.connectTime = 200ms, .queryTime = 100ms});
  expectFailure(answer.failure, {Kind::kConnect, ETIMEDOUT, 0, "Connection timed out"}, "all");
  EXPECT_TRUE(watch.took(300ms));
  EXPECT_TRUE(last.connections().empty());
}

TEST_F(WebClientHost, NameServerThatDoesNotAnswer_EndsInItsTime) {
  const DnsServer names([](const DnsQuery&) { return std::string(); });
  const Stopwatch watch;
  const HTTP::WebAnswer answer =
      HTTP::ask({.uri = Uri("http://host.example.test/")}, {.resolveTime = 150ms});
  EXPECT_EQ(answer.failure.kind, Kind::kResolve);
  EXPECT_EQ(answer.problem, "could not resolve the host");
  EXPECT_TRUE(watch.took(150ms));
  // Of a proxy's name it is the proxy's failure.
  EXPECT_EQ(HTTP::ask({.uri = Uri("http://one.example.test/")},
                      {.proxy = Uri("http://proxy.example.test:3128"), .resolveTime = 50ms})
                .failure.kind,
            Kind::kProxy);
}

}  // namespace
}  // namespace Velantrix::Test
