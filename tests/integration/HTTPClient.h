// The library's HTTP client in the hands of a test.
//
//   FaultServer server(Scripts::answer("body"));
//   HTTPClient client;
//   ASSERT_TRUE(client.connect(server.port()));
//   EXPECT_EQ(client.get("/ca.crl"), HTTP::Connection::kComplete);
//   EXPECT_EQ(client.content(), "body");
//
#pragma once

#include "foundation/net/http/HTTPConnection.h"
#include "support/FaultServer.h"
#include "support/Memory.h"
#include "support/Stopwatch.h"

#include <boost/asio/ip/address.hpp>

#include <cstdint>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {

namespace HTTP = LW::HTTP;

class HTTPClient {
 public:
  HTTPClient() : HTTPClient(HTTP::RefStream(HTTP::Stream::kPlain)) {}
  explicit HTTPClient(HTTP::RefStream stream) : connection_(stream) {}

  bool connect(std::uint16_t port, const char* address = "127.0.0.1") {
    return connection_->connect({boost::asio::ip::make_address(address), port});
  }
  /// Sends a request and returns the outcome.
  int get(const std::string& path = "/") {
    connection_->send("GET " + path + " HTTP/1.0\r\n\r\n");
    return connection_->receive();
  }
  std::string content() const {
    const LW::Buffer& bytes = connection_->content();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.length()};
  }
  HTTP::Connection* operator->() const { return connection_.operator->(); }

 private:
  HTTP::RefConnection connection_;
};

inline void expectFailure(const HTTP::Failure& failure, const HTTP::Failure& expected,
                          const std::string& what) {
  EXPECT_EQ(static_cast<int>(failure.kind), static_cast<int>(expected.kind)) << what;
  EXPECT_EQ(failure.error, expected.error) << what;
  EXPECT_EQ(failure.httpStatus, expected.httpStatus) << what;
  EXPECT_EQ(failure.detail, expected.detail) << what;
}

/// A body to be sent.
inline LW::RefBuffer bodyOf(const std::string& bytes) {
  LW::RefBuffer body(bytes.size());
  body->append(bytes.data(), bytes.size());
  return body;
}

}  // namespace Velantrix::Test
