// A name server on 127.0.0.1, port 53, in a test that has a network of its own.
//
//   DnsServer server([](const DnsQuery& query) { return answerTo(query, {"192.0.2.1"}); });
//   ... resolve ...
//   EXPECT_EQ(server.queries().at(0).name, "host.example.test");
//
#pragma once

#include "support/Descriptor.h"

#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <vector>

namespace Velantrix::Test {

/// The types of records (RFC 1035, 3.2.2, and RFC 3596) and response codes that are used here.
inline constexpr unsigned int kTypeA = 1;
inline constexpr unsigned int kTypeCname = 5;
inline constexpr unsigned int kTypeAaaa = 28;
inline constexpr unsigned int kNoError = 0;
inline constexpr unsigned int kServerFailure = 2;
inline constexpr unsigned int kNoSuchName = 3;

struct DnsQuery {
  std::string bytes;     ///< as it came
  std::string question;  ///< the part that an answer repeats
  std::string name;      ///< in lower case
  unsigned int type = 0;
};

inline std::string number16(std::size_t value) {
  return {static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}

/// A record about the name of the question.
inline std::string record(unsigned int type, const std::string& data) {
  return number16(0xc00c) + number16(type) + number16(1) + number16(0) + number16(60) +
         number16(data.size()) + data;
}

/// An answer with records of any kind, `count` of which it announces.
inline std::string answerWith(const DnsQuery& query, const std::string& records, std::size_t count,
                              unsigned int code = kNoError) {
  return query.bytes.substr(0, 2) + number16(0x8180 | code) + number16(1) + number16(count) +
         number16(0) + number16(0) + query.question + records;
}

/// The addresses of the family that was asked for.
inline std::string answerTo(const DnsQuery& query, const std::vector<std::string>& addresses,
                            unsigned int code = kNoError) {
  std::string records;
  std::size_t count = 0;
  for (const std::string& text : addresses) {
    const bool six = text.find(':') != std::string::npos;
    if (query.type != (six ? kTypeAaaa : kTypeA)) continue;
    std::array<char, 16> bytes{};
    if (inet_pton(six ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1) {
      throw std::runtime_error("no address: " + text);
    }
    records += record(query.type, {bytes.data(), six ? bytes.size() : std::size_t{4}});
    ++count;
  }
  return answerWith(query, records, count, code);
}

class DnsServer {
 public:
  /// Makes the answer, in the server's thread; empty: none is sent.
  using Handler = std::function<std::string(const DnsQuery&)>;

  explicit DnsServer(Handler handler, const char* address = "127.0.0.1")
      : handler_(std::move(handler)),
        socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket"),
        stop_(eventfd(0, EFD_CLOEXEC), "eventfd") {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(53);
    if (inet_pton(AF_INET, address, &place.sin_addr) != 1 ||
        bind(socket_.number(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
      failWithError("bind to port 53", errno);
    }
    thread_ = std::thread([this] { serve(); });
  }
  ~DnsServer() {
    eventfd_write(stop_.number(), 1);
    thread_.join();
  }
  DnsServer(const DnsServer&) = delete;
  DnsServer& operator=(const DnsServer&) = delete;

  std::vector<DnsQuery> queries() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return queries_;
  }

 private:
  static DnsQuery parse(const std::string& bytes) {
    constexpr std::size_t kHeader = 12;
    DnsQuery query{bytes, {}, {}, 0};
    std::size_t place = kHeader;
    while (place < bytes.size() && bytes[place] != 0) {
      const auto length = static_cast<unsigned char>(bytes[place]);
      if (!query.name.empty()) query.name += '.';
      for (const char c : bytes.substr(place + 1, length)) {
        query.name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      }
      place += length + std::size_t{1};
    }
    if (place + 5 > bytes.size()) return query;
    query.type = static_cast<unsigned char>(bytes[place + 1]) * 256U +
                 static_cast<unsigned char>(bytes[place + 2]);
    query.question = bytes.substr(kHeader, place + 5 - kHeader);
    return query;
  }

  void serve() {
    std::array<pollfd, 2> wait = {{{stop_.number(), POLLIN, 0}, {socket_.number(), POLLIN, 0}}};
    while (wait[0].revents == 0) {
      if (poll(wait.data(), wait.size(), -1) < 0 || wait[1].revents == 0) continue;
      std::array<char, 4096> block{};
      sockaddr_in from{};
      socklen_t size = sizeof from;
      auto* const client = reinterpret_cast<sockaddr*>(&from);
      const ssize_t count =
          recvfrom(socket_.number(), block.data(), block.size(), 0, client, &size);
      if (count < 0) continue;
      const DnsQuery query = parse({block.data(), static_cast<std::size_t>(count)});
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        queries_.push_back(query);
      }
      const std::string answer = handler_(query);
      if (answer.empty()) continue;
      if (sendto(socket_.number(), answer.data(), answer.size(), 0, client, size) < 0) continue;
    }
  }

  const Handler handler_;
  Descriptor socket_;
  Descriptor stop_;
  mutable std::mutex mutex_;
  std::vector<DnsQuery> queries_;
  std::thread thread_;  ///< last: it uses all the others
};

}  // namespace Velantrix::Test
