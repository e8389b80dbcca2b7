// The client for the web over TLS and through proxies.
#include "foundation/net/AddressAdmission.h"
#include "foundation/net/http/WebClient.h"
#include "integration/ConnectProxy.h"
#include "integration/HTTPClient.h"
#include "integration/WebClientFixture.h"
#include "support/FaultScripts.h"
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Pki.h"

#include <pkx509/AddressPolicy.h>

#include <openssl/err.h>

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Kind = HTTP::Failure::Kind;
using Policy = Crypto::PKX509::AddressPolicy;

class WebClientTls : public testing::Test {
 protected:
  WebClientTls() {
    writeFile(directory_ / "client.crt", pem(client_.get()));
    writeFile(directory_ / "client.key", pem(client_.key.get()));
  }
  ~WebClientTls() override { EXPECT_EQ(ERR_peek_error(), 0U); }

  HTTP::WebTerms withIdentity() const {
    return {.identity = HTTP::ClientIdentity{certificate_.c_str(), key_.c_str()}};
  }
  FaultServerOptions forClients() const { return {.certificate = &server_, .clientCA = &root_}; }

  const TempDir directory_;
  const std::string certificate_ = (directory_ / "client.crt").string();
  const std::string key_ = (directory_ / "client.key").string();
  const Issued root_ = issueCA("CN=Clients");
  const Issued client_ = issue({.subject = "O=Mail,CN=Appliance", .issuer = &root_});
  // Signed by nobody that is known here, for another host, and long expired.
  const Issued server_ = issue({.subject = "CN=other.example.com",
                                .notBefore = std::chrono::hours(-48),
                                .notAfter = std::chrono::hours(-24)});
};

TEST_F(WebClientTls, ClientCertificate_IsShownToWhoWasNamed) {
  const FaultServer server(Scripts::answer("over TLS"), forClients());
  const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url())}, withIdentity());
  EXPECT_EQ(contentOf(answer), "over TLS") << answer.problem;
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().at(0).clientSubject, "CN=Appliance,O=Mail");
  EXPECT_EQ(server.connections().at(0).serverName, "");  // RFC 6066, 3: no address
  EXPECT_NE(
      server.requests().at(0).find("\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n"),
      std::string::npos);
}

TEST_F(WebClientTls, ClientCertificate_IsShownToNobodyBehindARedirect) {
  const FaultServer target(Scripts::answer("for clients"), forClients());
  const FaultServer open(Scripts::answer("for all"), {.certificate = &server_});
  const FaultServer secure(Scripts::redirect(target.url()), forClients());
  const FaultServer plain(Scripts::redirect(target.url()));
  for (const FaultServer* first : {&secure, &plain}) {
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(first->url())}, withIdentity());
    EXPECT_EQ(answer.redirects, 1U) << answer.problem;
    EXPECT_FALSE(answer.isComplete());
  }
  ASSERT_TRUE(target.waitForEnds(2));
  for (const FaultConnection& seen : target.connections()) {
    EXPECT_EQ(seen.clientSubject, "");
    EXPECT_NE(seen.error, "");
  }
  // Not even by the host that has just seen it.
  const FaultServer itself(Scripts::inTurn({Scripts::redirect("/x"), Scripts::answer("again")}),
                           forClients());
  EXPECT_FALSE(HTTP::ask({.uri = Uri(itself.url())}, withIdentity()).isComplete());
  ASSERT_TRUE(itself.waitForEnds(2));
  EXPECT_EQ(itself.connections().at(0).clientSubject, "CN=Appliance,O=Mail");
  EXPECT_EQ(itself.connections().at(1).clientSubject, "");
  // Who asks for none is still of use, also where TLS ends: what is served is signed.
  const FaultServer away(Scripts::redirect(open.url()), forClients());
  EXPECT_EQ(contentOf(HTTP::ask({.uri = Uri(away.url())}, withIdentity())), "for all");
  const FaultServer bare(Scripts::answer("bare"));
  const FaultServer down(Scripts::redirect(bare.url()), forClients());
  EXPECT_EQ(contentOf(HTTP::ask({.uri = Uri(down.url())}, withIdentity())), "bare");
}

TEST_F(WebClientTls, CertificateThatCannotBeLoaded_IsItsFailure) {
  const FaultServer server(Scripts::answer("x"), {.certificate = &server_});
  const std::string broken = (directory_ / "broken.pem").string();
  writeFile(broken, "-----BEGIN CERTIFICATE-----\n");
  const std::string below = broken + "/client.crt";  // ENOTDIR
  const HTTP::ClientIdentity rows[] = {{broken.c_str(), key_.c_str()},
                                       {certificate_.c_str(), broken.c_str()},
                                       {broken.c_str(), "/no/such.key"},
                                       {below.c_str(), key_.c_str()}};
  for (const HTTP::ClientIdentity& row : rows) {
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url())}, {.identity = row});
    EXPECT_EQ(answer.failure.kind, Kind::kClientIdentity) << row.certificateFile;
    EXPECT_TRUE(answer.failure.file.starts_with(broken)) << answer.failure.file;
    EXPECT_TRUE(answer.problem.starts_with("client certificate or key: ")) << answer.problem;
  }
  EXPECT_TRUE(server.connections().empty());
  EXPECT_EQ(contentOf(HTTP::ask({.uri = Uri(server.url())}, {})), "x");
}

TEST_F(WebClientTls, CertificateThatIsNotThere_IsShownToNobody) {
  const FaultServer open(Scripts::answer("for all"), {.certificate = &server_});
  const FaultServer closed(Scripts::answer("for clients"), forClients());
  const HTTP::ClientIdentity rows[] = {{"/no/such.crt", key_.c_str()},
                                       {certificate_.c_str(), "/no/such.key"},
                                       {"/no/such.crt", "/no/such.key"}};
  for (const HTTP::ClientIdentity& row : rows) {
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(open.url())}, {.identity = row});
    EXPECT_EQ(contentOf(answer), "for all") << answer.problem;
    EXPECT_EQ(answer.failure.kind, Kind::kNone);
    EXPECT_FALSE(HTTP::ask({.uri = Uri(closed.url())}, {.identity = row}).isComplete());
  }
  ASSERT_TRUE(closed.waitForEnds(std::size(rows)));
  for (const FaultConnection& seen : closed.connections()) EXPECT_EQ(seen.clientSubject, "");
}

TEST_F(WebClientTls, HandshakeThatNeverEnds_EndsWithTheTimeToConnect) {
  const FaultServer server([](Peer& peer) { peer.waitForPeerToClose(); });
  const Stopwatch watch;
  const HTTP::WebAnswer answer =
      HTTP::ask({.uri = Uri("https://127.0.0.1:" + std::to_string(server.port()) + "/")},
                {.connectTime = 200ms});
  expectFailure(answer.failure, {Kind::kTls, ETIMEDOUT, 0, "Connection timed out"}, "TLS");
  EXPECT_EQ(answer.problem, "could not connect");
  EXPECT_TRUE(watch.took(200ms));
}

TEST_F(WebClientTls, Answers_AreReadThroughATunnel) {
  const FaultServer server(Scripts::answer("body"), forClients());
  const ConnectProxy proxy;
  HTTP::WebTerms terms = withIdentity();
  terms.proxy = Uri(proxy.url());
  const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri(server.url("/a?b"))}, terms);
  EXPECT_EQ(contentOf(answer), "body") << answer.problem << answer.failure.detail;
  const std::string place = "127.0.0.1:" + std::to_string(server.port());
  ASSERT_EQ(proxy.requests().size(), 1U);
  EXPECT_EQ(proxy.requests().at(0), "CONNECT " + place + " HTTP/1.1\r\nHost: " + place +
                                        "\r\nUser-Agent: libvlxpkx509/" PKX509_VERSION "\r\n\r\n");
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_EQ(server.connections().at(0).clientSubject, "CN=Appliance,O=Mail");
  EXPECT_TRUE(server.requests().at(0).starts_with("GET /a?b HTTP/1.1\r\nHost: " + place + "\r\n"));
}

// ---- Proxies

TEST(WebClientProxy, Request_HasTheWholeURIButNoUser) {
  const struct {
    const char* uri;
    std::string target;
    std::string host;
  } rows[] = {
      {"http://crl.example.test/a?b#c", "http://crl.example.test/a?b", "crl.example.test"},
      {"http://u:p@crl.example.test:80", "http://crl.example.test/", "crl.example.test"},
      {"http://crl.example.test:443/?x", "http://crl.example.test:443/?x", "crl.example.test:443"},
      {"http://192.0.2.1:8080/", "http://192.0.2.1:8080/", "192.0.2.1:8080"},
      {"http://[2001:db8::1]/", "http://[2001:db8::1]/", "[2001:db8::1]"},
  };
  for (const auto& row : rows) {
    const FaultServer proxy(Scripts::answer("body"));
    // The proxy is the operator's, wherever it is.
    const AddressAdmission admission(Policy::publicAndPrivate());
    const HTTP::WebAnswer answer =
        HTTP::ask({.uri = Uri(row.uri)}, {.proxy = Uri(proxy.url("/ignored"))});
    EXPECT_EQ(contentOf(answer), "body") << row.uri << answer.problem;
    ASSERT_EQ(proxy.requests().size(), 1U) << row.uri;
    EXPECT_TRUE(proxy.requests().at(0).starts_with("GET " + row.target +
                                                   " HTTP/1.1\r\nHost: " + row.host + "\r\n"))
        << proxy.requests().at(0);
  }
}

TEST(WebClientProxy, AddressesThatThePolicyRefuses_AreNotAskedFor) {
  const FaultServer proxy(Scripts::answer("body"));
  const HTTP::WebTerms terms{.proxy = Uri(proxy.url())};
  const AddressAdmission admission(Policy::publicOnly());
  for (const char* host :
       {"127.0.0.1", "10.1.2.3", "[::1]", "[::ffff:127.0.0.1]", "[fe80::1]", "0.0.0.0",
        // A proxy reads these as addresses too.
        "127.1", "127.1.", "2130706433", "0x7f000001", "0177.0.0.1", "0x7f.1", "0"}) {
    const Uri uri("http://" + std::string(host) + "/");
    ASSERT_FALSE(uri.isNull()) << host;
    const HTTP::WebAnswer answer = HTTP::ask({.uri = uri}, terms);
    EXPECT_EQ(answer.failure.kind, Kind::kRefusedAddress) << host;
    EXPECT_EQ(answer.problem, "could not connect") << host;
  }
  // What could be one is none that is asked for either.
  for (const char* host : {"%31%32%37.0.0.1", "a,b"}) {
    const HTTP::WebAnswer answer =
        HTTP::ask({.uri = Uri("http://" + std::string(host) + "/")}, terms);
    EXPECT_EQ(answer.failure.kind, Kind::kResolve) << host;
  }
  EXPECT_EQ(HTTP::ask({.uri = Uri("https://127.0.0.1/")}, terms).failure.kind,
            Kind::kRefusedAddress);
  EXPECT_TRUE(proxy.connections().empty());
}

TEST(WebClientProxy, RedirectsThroughIt_AreJudgedToo) {
  const FaultServer proxy(Scripts::inTurn(
      {Scripts::redirect("http://two.example.test/b"), Scripts::redirect("http://127.0.0.1/")}));
  const AddressAdmission admission(Policy::publicOnly());
  const HTTP::WebAnswer answer =
      HTTP::ask({.uri = Uri("http://one.example.test/a")}, {.proxy = Uri(proxy.url())});
  expectFailure(answer.failure, {Kind::kRefusedAddress, 0, 0, "a loopback address: 127.0.0.1"},
                "third hop");
  EXPECT_EQ(answer.redirects, 2U);
  ASSERT_EQ(proxy.requests().size(), 2U);
  EXPECT_TRUE(proxy.requests().at(1).starts_with("GET http://two.example.test/b HTTP/1.1\r\n"));
}

TEST(WebClientProxy, ProxyThatIsNone_IsNoFailureOfTheHost) {
  const ReservedPort port;
  const std::string ended = "the server closed the connection";
  for (const char* uri : {"http://crl.example.test/", "https://crl.example.test/"}) {
    const HTTP::WebAnswer dead =
        HTTP::ask({.uri = Uri(uri)}, {.proxy = Uri("http://127.0.0.1:" + port.text())});
    expectFailure(dead.failure, {Kind::kProxy, ECONNREFUSED, 0, "Connection refused"}, uri);
    const FaultServer asks(
        Scripts::raw("HTTP/1.1 407 Who are you\r\nProxy-Authenticate: Basic\r\n\r\n"));
    expectFailure(HTTP::ask({.uri = Uri(uri)}, {.proxy = Uri(asks.url())}).failure,
                  {Kind::kProxy, 0, 407, "Who are you"}, uri);
  }
  const struct {
    const char* what;
    Script script;
    HTTP::Failure failure;
  } rows[] = {
      {"closed", Scripts::raw(""), {Kind::kProxy, 0, 0, ended}},
      {"no HTTP", Scripts::raw("SSH-2.0-x\r\n\r\n"), {Kind::kProxy, 0, 0, "bad version"}},
      {"another version",
       Scripts::raw("HTTP/2.0 200 OK\r\n\r\n"),
       {Kind::kProxy, 0, 0, "bad version"}},
      {"more than it should say",
       Scripts::raw("HTTP/1.1 200 OK\r\n\r\n\x16\x03\x03"),
       {Kind::kProxy, 0, 0, "unexpected body"}},
      {"silence", Scripts::silence(), {Kind::kProxy, ETIMEDOUT, 0, "Connection timed out"}},
      // The host's own, told by the proxy.
      {"dead host", Scripts::answer("page", "503 No Route"), {Kind::kStatus, 0, 503, "No Route"}},
  };
  for (const auto& row : rows) {
    const FaultServer proxy(row.script);
    const HTTP::WebAnswer answer = HTTP::ask({.uri = Uri("https://crl.example.test/")},
                                             {.proxy = Uri(proxy.url()), .connectTime = 200ms});
    expectFailure(answer.failure, row.failure, row.what);
    EXPECT_EQ(proxy.connections().size(), 1U) << row.what;
    EXPECT_EQ(proxy.requests().at(0).find("CONNECT crl.example.test:443 HTTP/1.1\r\n"), 0U);
  }
}

}  // namespace
}  // namespace Velantrix::Test
