// A server on loopback that does what a test wants with each connection, and the octets of LDAP
// messages (RFC 4511) to do it with.
//
//   LDAPPeer peer([](LDAPPeer::Connection& connection) {
//     connection.read();
//     connection.write(message(1, entry("cn=A", {{"cn", {"A"}}})) + message(1, done(0)));
//   });
//   LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), false);
//
// The script runs in a thread of the server; the connection is closed when it returns. When the
// object goes, connections that are left are closed and the thread ends, whatever it waits for.
#pragma once

#include <arpa/inet.h>
#include <array>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Velantrix::Test {

// --- messages

inline std::string element(unsigned char tag, const std::string& content) {
  std::string head(1, static_cast<char>(tag));
  const std::size_t size = content.size();
  if (size < 0x80) {
    head += static_cast<char>(size);
  } else {
    head += '\x84';
    for (unsigned int shift = 32; shift != 0;) {
      shift -= 8;
      head += static_cast<char>((size >> shift) & 0xffU);
    }
  }
  return head + content;
}

inline std::string text(const std::string& octets) { return element(0x04, octets); }

inline std::string message(int id, const std::string& operation) {
  return element(0x30, element(0x02, std::string(1, static_cast<char>(id))) + operation);
}

/// LDAPResult in the operation with that tag: 0x65 ends a search, 0x61 a bind, 0x78 an extension.
inline std::string done(int code, const std::string& diagnostic = {}, unsigned char tag = 0x65) {
  return element(
      tag, element(0x0a, std::string(1, static_cast<char>(code))) + text("") + text(diagnostic));
}

using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

inline std::string entry(const std::string& name, const Attributes& attributes) {
  std::string list;
  for (const auto& [type, values] : attributes) {
    std::string set;
    for (const std::string& value : values) set += text(value);
    list += element(0x30, text(type) + element(0x31, set));
  }
  return element(0x64, text(name) + element(0x30, list));
}

inline std::string reference(const std::string& uri) { return element(0x73, text(uri)); }

// --- the server

class LDAPPeer {
 public:
  class Connection {
   public:
    Connection(int socket, int stop) : socket_(socket), stop_(stop) {}

    /// The next message of the client; empty when it has closed the connection.
    std::string read() {
      while (!whole()) {
        if (!fill()) return {};
      }
      const std::string first = in_.substr(0, sizeOf(in_));
      in_.erase(0, first.size());
      requests_.push_back(first);
      return first;
    }

    /// False when the client is gone or the test is over.
    bool write(std::string_view octets) {
      while (!octets.empty()) {
        if (!ready(POLLOUT)) return false;
        const ssize_t count =
            ::send(socket_, octets.data(), octets.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) return false;
        octets.remove_prefix(static_cast<std::size_t>(count));
      }
      return true;
    }

    /// Until the client closes the connection or the test is over.
    void hold() {
      while (fill()) in_.clear();
    }

    /// Until the test is over, without a look at what the client sends.
    void ignore() const {
      pollfd entry = {stop_, POLLIN, 0};
      static_cast<void>(::poll(&entry, 1, -1));
    }

    /// True unless the test is over or the client gone; a moment passes.
    bool pause() {
      pollfd entries[] = {{stop_, POLLIN, 0}, {socket_, POLLIN, 0}};
      return ::poll(entries, 2, 20) == 0;
    }

    /// Closing will reset the connection.
    void reset() {
      const linger now{1, 0};
      ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }

    const std::vector<std::string>& requests() const { return requests_; }

   private:
    bool whole() const { return in_.size() >= 2 && in_.size() >= sizeOf(in_); }

    // Requests of the tests are short: their length is in one octet, behind another one where it is
    // above 127.
    static std::size_t sizeOf(const std::string& request) {
      const auto octet = [&](std::size_t i) { return static_cast<unsigned char>(request[i]); };
      if (octet(1) != 0x81) return 2U + octet(1);
      return request.size() < 3 ? 3U : 3U + octet(2);
    }

    bool ready(short events) const {
      pollfd entries[] = {{stop_, POLLIN, 0}, {socket_, events, 0}};
      return ::poll(entries, 2, -1) > 0 && entries[0].revents == 0;
    }

    bool fill() {
      if (!ready(POLLIN)) return false;
      std::array<char, 4096> block{};
      const ssize_t count = ::recv(socket_, block.data(), block.size(), 0);
      if (count <= 0) return false;
      in_.append(block.data(), static_cast<std::size_t>(count));
      return true;
    }

    int socket_;
    int stop_;
    std::string in_;
    std::vector<std::string> requests_;
  };

  using Script = std::function<void(Connection&)>;

  explicit LDAPPeer(Script script)
      : script_(std::move(script)),
        stop_(::eventfd(0, EFD_CLOEXEC)),
        listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (::bind(listener_, generic, size) != 0 || ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, generic, &size) != 0) {
      throw std::runtime_error("no port to listen on");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~LDAPPeer() {
    static_cast<void>(::eventfd_write(stop_, 1));
    thread_.join();
    ::close(listener_);
    ::close(stop_);
  }
  LDAPPeer(const LDAPPeer&) = delete;
  LDAPPeer& operator=(const LDAPPeer&) = delete;

  std::string uri(const std::string& scheme = "ldap") const {
    return scheme + "://127.0.0.1:" + std::to_string(port_);
  }

  /// Waits for the end of the first connection, and returns the messages that were read from it.
  std::vector<std::string> requests() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return ended_; });
    return requests_;
  }

 private:
  void run() {
    for (;;) {
      pollfd entries[] = {{stop_, POLLIN, 0}, {listener_, POLLIN, 0}};
      if (::poll(entries, 2, -1) <= 0 || entries[0].revents != 0) return;
      const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (socket < 0) continue;
      Connection connection(socket, stop_);
      script_(connection);
      ::close(socket);
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!ended_) requests_ = connection.requests();
      ended_ = true;
      changed_.notify_all();
    }
  }

  Script script_;
  int stop_;
  int listener_;
  unsigned short port_ = 0;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;  // guarded by mutex_, as are the requests
  std::vector<std::string> requests_;
  std::thread thread_;  // last: it uses all the others
};

// --- searches

/// The number of a request, which its answer repeats.
inline int numberOf(const std::string& request) {
  const std::size_t head = request[1] == '\x81' ? 3 : 2;
  return static_cast<unsigned char>(request.at(head + 2));
}

/// The next search; 0 when the client is gone. A bind before it succeeds.
inline int nextSearch(LDAPPeer::Connection& connection) {
  for (std::string request = connection.read(); !request.empty(); request = connection.read()) {
    const int number = numberOf(request);
    const auto operation = request.at(request[1] == '\x81' ? 6 : 5);
    if (operation == '\x63') return number;
    if (operation == '\x60') connection.write(message(number, done(0, {}, 0x61)));
  }
  return 0;
}

/// Sends each search these messages, and that it is done.
inline void answerSearches(LDAPPeer::Connection& connection,
                           const std::vector<std::string>& entries) {
  while (const int number = nextSearch(connection)) {
    for (const std::string& one : entries) {
      if (!connection.write(message(number, one))) return;
    }
    connection.write(message(number, done(0)));
  }
}

}  // namespace Velantrix::Test
