// Servers of other projects work in a private view as they do outside.
#include "support/Exchange.h"
#include "support/OcspResponder.h"
#include "support/WebServer.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

TEST(PrivateView, WebServer_Serves) {
  const WebServer server;
  writeFile(server.root() / "a", "found");
  const std::string response = exchangeBytes(portOf(server.url("/a")), "GET /a HTTP/1.0\r\n\r\n");
  EXPECT_NE(response.find("found"), std::string::npos) << response;
}

TEST(PrivateView, OcspResponder_Answers) {
  using namespace std::string_literals;
  const Issued ca = issueCa("CN=CA");
  const OcspResponder responder({.ca = &ca});
  const std::string response = exchangeBytes(portOf(responder.url()),
                                             "POST / HTTP/1.0\r\n"
                                             "Content-Type: application/ocsp-request\r\n"
                                             "Content-Length: 2\r\n\r\n\x30\0"s);
  EXPECT_NE(response.find("application/ocsp-response"), std::string::npos) << response;
}

}  // namespace
}  // namespace Velantrix::Test
