// The library's HTTP client in the hands of a test, and what its tests measure.
//
//   FaultServer server(Scripts::answer("body"));
//   HTTPClient client;
//   ASSERT_TRUE(client.connect(server.port()));
//   EXPECT_EQ(client.get("/ca.crl"), HTTP::Connection::kComplete);
//   EXPECT_EQ(client.content(), "body");
//
#pragma once

#include "foundation/HTTPConnection.h"
#include "support/FaultServer.h"

#include <boost/asio/ip/address.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {

namespace HTTP = LW::HTTP;

/// What a bound on time may be passed by until a busy machine has noticed.
inline constexpr std::chrono::milliseconds kSlack{1500};

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

/// A body to be sent.
inline LW::RefBuffer bodyOf(const std::string& bytes) {
  LW::RefBuffer body(bytes.size());
  body->append(bytes.data(), bytes.size());
  return body;
}

class Stopwatch {
 public:
  std::chrono::milliseconds elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
  }
  /// Has it taken the time, and no longer than that and the slack?
  testing::AssertionResult took(std::chrono::milliseconds time) const {
    const auto all = elapsed();
    if (all >= time && all <= time + kSlack) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "it took " << all.count() << " ms";
  }
  /// Has it ended without waiting for anything?
  testing::AssertionResult tookNoTime() const { return took(std::chrono::milliseconds(0)); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

/// By how much the memory of this process has grown at most since the object was made, in bytes.
class MemoryPeak {
 public:
  MemoryPeak() : addresses_(read("VmPeak:")) {
    std::ofstream("/proc/self/clear_refs") << "5\n";  // begins the peak of resident memory anew
    resident_ = read("VmHWM:");
  }
  std::size_t resident() const { return read("VmHWM:") - resident_; }
  /// Also what was asked for and not touched.
  std::size_t addresses() const { return read("VmPeak:") - addresses_; }

 private:
  static std::size_t read(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
      std::size_t kilobytes = 0;
      if (word == name && status >> kilobytes) return kilobytes * 1024;
    }
    throw std::runtime_error("/proc/self/status has no " + name);
  }

  std::size_t addresses_;
  std::size_t resident_ = 0;
};

/// How many threads this process has.
inline std::size_t threadCount() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

}  // namespace Velantrix::Test
