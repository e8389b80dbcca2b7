// What a FaultServer has seen, kept by its threads and read by the test.
//
//   FaultLog log;
//   const std::size_t number = log.opened();
//   log.received(number, bytes);
//   log.waitForRequests(1, limit);
//   EXPECT_EQ(log.connections().at(0).received, "GET / HTTP/1.0\r\n\r\n");
//
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Velantrix::Test {

/// One accepted connection.
struct FaultConnection {
  std::string received;       ///< all bytes that the script read, exactly as they came
  std::string clientSubject;  ///< of the TLS client's certificate as in RFC 2253, empty: none
  std::string serverName;     ///< that a TLS client asked for, empty: none
  std::string error;          ///< why the TLS handshake failed, or what the script threw
  bool ended = false;         ///< the script has ended and the connection is closed
};

class FaultLog {
 public:
  std::size_t opened() {
    return change([this] {
      connections_.emplace_back();
      return connections_.size() - 1;
    });
  }
  void received(std::size_t number, std::string_view bytes) {
    change([&] { connections_[number].received += bytes; });
  }
  void request(const std::string& bytes) {
    change([&] { requests_.push_back(bytes); });
  }
  void clientSubject(std::size_t number, const std::string& subject) {
    change([&] { connections_[number].clientSubject = subject; });
  }
  void serverName(std::size_t number, const std::string& name) {
    change([&] { connections_[number].serverName = name; });
  }
  void failed(std::size_t number, const std::string& error) {
    change([&] { connections_[number].error = error; });
  }
  void ended(std::size_t number) {
    change([&] { connections_[number].ended = true; });
  }

  std::vector<FaultConnection> connections() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }
  std::vector<std::string> requests() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

  bool waitForConnections(std::size_t count, std::chrono::milliseconds limit) const {
    return waitUntil([&] { return connections_.size() >= count; }, limit);
  }
  bool waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    return waitUntil([&] { return requests_.size() >= count; }, limit);
  }
  bool waitForEnds(std::size_t count, std::chrono::milliseconds limit) const {
    const auto hasEnded = [](const FaultConnection& one) { return one.ended; };
    return waitUntil(
        [&] {
          return std::count_if(connections_.begin(), connections_.end(), hasEnded) >=
                 static_cast<std::ptrdiff_t>(count);
        },
        limit);
  }

 private:
  template <class Change>
  std::invoke_result_t<Change> change(Change make) {
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();  // they look when the lock is given back
    return make();
  }
  template <class Condition>
  bool waitUntil(Condition holds, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, holds);
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<FaultConnection> connections_;
  std::vector<std::string> requests_;
};

}  // namespace Velantrix::Test
