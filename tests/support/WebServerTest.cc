#include "support/Command.h"
#include "support/Exchange.h"
#include "support/WebServer.h"

#include <gtest/gtest.h>
#include <system_error>

namespace Velantrix::Test {
namespace {

std::string get(const std::string& path) {
  return "GET " + path +
         " HTTP/1.0\r\nUser-Agent: Test \"1\"\r\nPragma: no-cache\r\nAccept: */*\r\n\r\n";
}

std::string bodyOf(const std::string& response) {
  const std::size_t end = response.find("\r\n\r\n");
  return end == std::string::npos ? "no header: " + response : response.substr(end + 4);
}

TEST(WebServer, FileInItsDirectory_IsServed) {
  const WebServer server;
  const std::string content("\0\xff\r\n", 4);
  writeFile(server.root() / "ca.crl", content);
  const std::string response = exchangeBytes(portOf(server.url("/ca.crl")), get("/ca.crl"));
  EXPECT_EQ(response.substr(0, 15), "HTTP/1.1 200 OK");
  EXPECT_EQ(bodyOf(response), content);
}

TEST(WebServer, Requests_AreLoggedWithTheirHeaders) {
  const WebServer server;
  writeFile(server.root() / "a", "x");
  exchangeBytes(portOf(server.url("/a")), get("/a"));
  exchangeBytes(portOf(server.url("/b")),
                "GET /b?c HTTP/1.0\r\nHost: h\r\nConnection: Keep-Alive\r\n\r\n", "127.0.0.1", 1);
  ASSERT_TRUE(server.waitForRequests(2));
  const std::vector<WebRequest> requests = server.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].line, "GET /a HTTP/1.0");
  EXPECT_EQ(requests[0].status, 200);
  EXPECT_EQ(requests[0].userAgent, "Test \\x221\\x22");
  EXPECT_EQ(requests[0].pragma, "no-cache");
  EXPECT_EQ(requests[0].accept, "*/*");
  EXPECT_EQ(requests[0].connection, "-");
  EXPECT_EQ(requests[0].host, "-");
  EXPECT_EQ(requests[0].clientSubject, "-");
  EXPECT_EQ(requests[1].line, "GET /b?c HTTP/1.0");
  EXPECT_EQ(requests[1].status, 404);
  EXPECT_EQ(requests[1].connection, "Keep-Alive");
  EXPECT_EQ(requests[1].host, "h");
  EXPECT_EQ(server.requestsFor("/a"), 1U);
  EXPECT_EQ(server.requestsFor("/b"), 0U);
  EXPECT_EQ(server.requestsFor("/b?c"), 1U);
}

TEST(WebServer, NoMoreRequestsCome_WaitingEnds) {
  const WebServer server;
  EXPECT_TRUE(server.waitForRequests(0));
  EXPECT_FALSE(server.waitForRequests(1, std::chrono::milliseconds(20)));
}

TEST(WebServer, StoppedAndStarted_HasItsUrlsAndItsLogStill) {
  WebServer server;
  writeFile(server.root() / "a", "x");
  const std::uint16_t port = portOf(server.url("/a"));
  for (std::size_t round = 1; round <= 3; ++round) {
    EXPECT_EQ(bodyOf(exchangeBytes(port, get("/a"))), "x");
    EXPECT_TRUE(server.waitForRequests(round));
    server.stop();
    EXPECT_EQ(server.requestsFor("/a"), round);
    EXPECT_THROW(exchangeBytes(port, get("/a")), std::system_error);
    server.start();
  }
}

TEST(WebServer, IPv6WhereThereIsSome_IsServedToo) {
  const WebServer server;
  writeFile(server.root() / "a", "x");
  if (!hasIPv6Loopback()) {
    EXPECT_THROW(server.ipv6Url("/a"), std::runtime_error);
    return;
  }
  EXPECT_EQ(server.ipv6Url("/a").substr(0, 13), "http://[::1]:");
  EXPECT_EQ(bodyOf(exchangeBytes(portOf(server.ipv6Url("/a")), get("/a"), "::1")), "x");
}

TEST(WebServer, CannotStart_ThrowsWithWhatItSays) {
  WebServer server;
  server.stop();
  std::filesystem::remove(server.root().parent_path() / "nginx.conf");
  try {
    server.start();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("No such file"), std::string::npos) << error.what();
  }
}

/// What the openssl command, as a TLS client, gets for the request.
class TlsWebServer : public testing::Test {
 protected:
  std::string get(const Issued* as) const {
    const TempDir directory;
    std::vector<std::string> argv = {"openssl",
                                     "s_client",
                                     "-quiet",
                                     "-CAfile",
                                     directory / "root.crt",
                                     "-verify_return_error",
                                     "-connect",
                                     "127.0.0.1:" + std::to_string(portOf(server.tlsUrl("/a")))};
    writeFile(directory / "root.crt", pem(root.get()));
    if (as != nullptr) {
      writeFile(directory / "client.crt", pem(as->get()));
      writeFile(directory / "client.key", pem(as->key.get()));
      argv.insert(argv.end(),
                  {"-cert", directory / "client.crt", "-key", directory / "client.key"});
    }
    return runCommand(argv, Velantrix::Test::get("/a")).out;
  }

  Issued root = issueCA("CN=Root");
  Issued tls = issue({.subject = "CN=127.0.0.1", .issuer = &root});
  Issued client = issue({.subject = "C=DE,CN=Client", .issuer = &root});
  WebServer server{{.certificate = &tls, .clientCA = &root}};
};

TEST_F(TlsWebServer, ClientWithACertificateOfTheCA_IsServedAndNamed) {
  writeFile(server.root() / "a", "secret");
  EXPECT_EQ(server.tlsUrl("/a").substr(0, 18), "https://127.0.0.1:");
  EXPECT_EQ(bodyOf(get(&client)), "secret");
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_EQ(server.requests().front().clientSubject, "CN=Client,C=DE");
}

TEST_F(TlsWebServer, ClientWithoutOne_IsRefused) {
  writeFile(server.root() / "a", "secret");
  EXPECT_EQ(get(nullptr).find("secret"), std::string::npos);
  const Issued stranger = issue({.subject = "CN=Client"});
  EXPECT_EQ(get(&stranger).find("secret"), std::string::npos);
  ASSERT_TRUE(server.waitForRequests(2));
  for (const WebRequest& request : server.requests()) EXPECT_EQ(request.status, 400);
}

TEST(WebServer, NoCertificate_HasNoTlsUrl) {
  const WebServer server;
  EXPECT_THROW(server.tlsUrl("/a"), std::runtime_error);
}

}  // namespace
}  // namespace Velantrix::Test
