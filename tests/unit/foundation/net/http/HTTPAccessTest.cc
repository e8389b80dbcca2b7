#include "foundation/net/http/HTTPAccess.h"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

namespace HTTP = LW::HTTP;

TEST(HTTPAccess, IsHandled_HTTPAndHTTPSInAnyCase) {
  const struct {
    const char* uri;
    bool handled;
  } rows[] = {{"http://host/", true},         {"https://host/", true},
              {"HTTP://host/", true},         {"HttpS://host/", true},
              {"ldap://host/", false},        {"ftp://host/", false},
              {"file:///etc/passwd", false},  {"httpx://host/", false},
              {"htt://host/", false},         {"urn:oid:1.2.3", false},
              {"mailto:http@host.de", false}, {"httpss://host/", false},
              {"http+unix://host/", false},   {"", false},
              {"//host/http:", false}};
  for (const auto& row : rows) {
    EXPECT_EQ(HTTP::isHandled(Uri(row.uri)), row.handled) << row.uri;
  }
}

TEST(HTTPAccess, EndpointFor_AddressAndPort) {
  const struct {
    const char* address;
    const char* uri;
    unsigned short port;
  } rows[] = {{"192.0.2.1", "http://host/", 80},
              {"192.0.2.1", "http://host:8080/", 8080},
              // 80 where others take 443: certificates in use count on it.
              {"192.0.2.1", "https://host/", 80},
              {"192.0.2.1", "https://host:443/", 443},
              {"192.0.2.1", "https://host:65535/", 65535},
              // No port that could be connected to, so as good as none.
              {"192.0.2.1", "http://host:0/", 80},
              {"2001:db8::1", "http://host/", 80},
              {"2001:db8::1", "https://host:1/", 1},
              {"::1", "http://host/", 80},
              {"::ffff:192.0.2.1", "http://host/", 80},
              {"255.255.255.255", "http://host/", 80}};
  for (const auto& row : rows) {
    const auto endpoint = HTTP::endpointFor(IPAddress(row.address), Uri(row.uri));
    EXPECT_EQ(endpoint.address().to_string(), row.address) << row.uri;
    EXPECT_EQ(endpoint.port(), row.port) << row.address << ' ' << row.uri;
    EXPECT_EQ(endpoint.address().is_v6(), std::string(row.address).find(':') != std::string::npos);
  }
}

TEST(HTTPAccess, EndpointForNoAddress_ThrowsTheSystemError) {
  for (const char* text : {"", "host", "192.0.2", "192.0.2.256", "1.2.3.4.5", "[::1]", ":::", "::g",
                           "192.0.2.1 ", "0x7f000001", "192.0.2.1:80"}) {
    try {
      HTTP::endpointFor(IPAddress(text), Uri("http://host/"));
      ADD_FAILURE() << "no exception for \"" << text << '"';
    } catch (const boost::system::system_error& error) {
      EXPECT_EQ(error.code(), boost::asio::error::invalid_argument) << text;
    }
  }
}

TEST(HTTPAccess, StreamForHTTP_IsPlainAndReadsNoFile) {
  HTTP::RefStream stream = HTTP::streamFor(Uri("http://host/"), {"/no/such.crt", "/no/such.key"});
  ASSERT_FALSE(stream.empty());
  EXPECT_EQ(stream->tls(), nullptr);
}

}  // namespace
}  // namespace Velantrix::Test
