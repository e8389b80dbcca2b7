// Servers of other projects work in a private view as they do outside.
#include "support/Exchange.h"
#include "support/OCSPBuilder.h"
#include "support/OCSPResponder.h"
#include "support/WebServer.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

TEST(PrivateView, WebServer_Serves) {
  const WebServer server;
  writeFile(server.root() / "a", "found");
  const std::string response = exchangeBytes(portOf(server.url("/a")), "GET /a HTTP/1.0\r\n\r\n");
  EXPECT_NE(response.find("found"), std::string::npos) << response;
}

TEST(PrivateView, OCSPResponder_Answers) {
  const Issued ca = issueCA("CN=CA");
  const OCSPResponder responder({.ca = &ca});
  // A whole request: OpenSSL 3.0.20 waits for more than two octets, 3.0.22 does not.
  const std::string body = ocspRequest(ca, ca);
  const std::string response = exchangeBytes(
      portOf(responder.url()),
      "POST / HTTP/1.0\r\nContent-Type: application/ocsp-request\r\nContent-Length: " +
          std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_NE(response.find("application/ocsp-response"), std::string::npos) << response;
}

}  // namespace
}  // namespace Velantrix::Test
