#include "WebFront.h"

#include "support/Loopback.h"

#include <velantrix/Assert.h>

#include <array>
#include <csignal>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace Velantrix::Fuzz {

namespace {

constexpr const char* kLastOne = "/the-last-one";

void sendAll(const Test::Descriptor& to, std::string_view octets) {
  while (!octets.empty()) {
    const ssize_t sent = ::send(to.number(), octets.data(), octets.size(), MSG_NOSIGNAL);
    if (sent < 0) return;
    octets.remove_prefix(static_cast<std::size_t>(sent));
  }
}

// Up to `mark`; what there is when the other side closes before.
std::string readUntil(const Test::Descriptor& from, std::string_view mark) {
  std::string octets;
  std::array<char, 4096> block;
  while (octets.find(mark) == std::string::npos) {
    const ssize_t got = ::recv(from.number(), block.data(), block.size(), 0);
    if (got <= 0) break;
    octets.append(block.data(), static_cast<std::size_t>(got));
  }
  return octets;
}

// The second word of a request.
std::string pathOf(const std::string& request) {
  const std::size_t begin = request.find(' ');
  if (begin == std::string::npos) return {};
  return request.substr(begin + 1, request.find(' ', begin + 1) - begin - 1);
}

}  // namespace

WebFront::WebFront() : listener_(Test::bindTo(0)), port_(Test::boundPort(listener_)) {
  PKX509_ASSERT(::listen(listener_.number(), 128) == 0);
  // The alarms of libFuzzer are the main thread's.
  sigset_t all;
  sigset_t former;
  PKX509_ASSERT(::sigfillset(&all) == 0);
  PKX509_ASSERT(::pthread_sigmask(SIG_SETMASK, &all, &former) == 0);
  std::thread([this] { run(); }).detach();
  PKX509_ASSERT(::pthread_sigmask(SIG_SETMASK, &former, nullptr) == 0);
}

void WebFront::serve(std::map<std::string, std::string> bodies) {
  const std::lock_guard<std::mutex> lock(mutex_);
  bodies_ = std::move(bodies);
  asked_.clear();
}

// Connections are accepted in the order in which they were made.
std::vector<std::string> WebFront::asked() {
  const Test::Descriptor last = Test::connectTo(port_);
  sendAll(last, std::string("GET ") + kLastOne + " HTTP/1.0\r\n\r\n");
  static_cast<void>(readUntil(last, "\r\n\r\n"));
  const std::lock_guard<std::mutex> lock(mutex_);
  PKX509_ASSERT(!asked_.empty() && asked_.back() == kLastOne);
  asked_.pop_back();
  return asked_;
}

void WebFront::run() {
  for (;;) {
    answer(
        Test::Descriptor(::accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC), "accept4"));
  }
}

// What the client says is read to the end: closing a socket with something unread would reset the
// connection, and could take the answer away from the client.
void WebFront::answer(const Test::Descriptor& client) {
  sendAll(client, responseTo(pathOf(readUntil(client, "\r\n\r\n"))));
  static_cast<void>(::shutdown(client.number(), SHUT_WR));
  std::array<char, 4096> block;
  while (::recv(client.number(), block.data(), block.size(), 0) > 0) {
  }
}

std::string WebFront::responseTo(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  asked_.push_back(path);
  const auto found = bodies_.find(path);
  const bool there = found != bodies_.end();
  const std::string body = there ? found->second : std::string();
  return std::string("HTTP/1.0 ") + (there ? "200 OK" : "404 Not Found") +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

WebFront& webFront() {
  static auto* const front = new WebFront;
  return *front;
}

}  // namespace Velantrix::Fuzz
