#include "support/FaultScripts.h"

#include <algorithm>

namespace Velantrix::Test::Scripts {

namespace {

constexpr char kPage[] = "<!DOCTYPE html><html><body><h1>Please log in</h1></body></html>\n";

/// `begin`, and then `block` until the client is gone.
Script endless(const std::string& begin, const std::string& block) {
  return [begin, block](Peer& peer) {
    if (!peer.readRequest() || !peer.write(begin)) return;
    while (peer.write(block)) {
    }
  };
}

std::string repeat(const std::string& text, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

}  // namespace

std::string response(const std::string& body, const std::string& status,
                     const std::string& headers) {
  return "HTTP/1.0 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
         headers + "\r\n" + body;
}

Script answer(const std::string& body, const std::string& status, const std::string& headers) {
  return raw(response(body, status, headers));
}

Script answerWith(const std::function<std::string(const std::string& request)>& makeBody) {
  return [makeBody](Peer& peer) {
    while (const auto request = peer.readRequest()) {
      if (!peer.write(response(makeBody(*request)))) return;
    }
  };
}

Script raw(const std::string& bytes) {
  return [bytes](Peer& peer) {
    if (peer.readRequest()) peer.write(bytes);
  };
}

Script trickle(const std::string& bytes, std::chrono::milliseconds interval) {
  return [bytes, interval](Peer& peer) {
    if (peer.readRequest()) peer.writeSlowly(bytes, interval);
  };
}

Script silence() {
  return [](Peer& peer) {
    while (peer.readRequest()) {
    }
  };
}

Script closeAtOnce() {
  return [](Peer& peer) { peer.close(); };
}

Script resetAtOnce() {
  return [](Peer& peer) { peer.reset(); };
}

Script cutShort(const std::string& body, std::uint64_t promised) {
  return [body, promised](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.write("HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(promised) + "\r\n\r\n" +
               body);
    peer.cut();
  };
}

Script hugePromise() {
  return [](Peer& peer) {
    if (!peer.readRequest()) return;
    peer.write("HTTP/1.0 200 OK\r\nContent-Length: 4294967296\r\n\r\na few bytes");
    peer.waitForPeerToClose();
  };
}

Script endlessBody() { return endless("HTTP/1.0 200 OK\r\n\r\n", std::string(65536, 'x')); }

Script endlessChunks() {
  return endless("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                 "10000\r\n" + std::string(65536, 'x') + "\r\n");
}

Script endlessHeaders() {
  return endless("HTTP/1.0 200 OK\r\n", repeat("X-More: to come\r\n", 1000));
}

Script endlessHeaderLine() {
  return endless("HTTP/1.0 200 OK\r\nX-Long: ", std::string(65536, 'x'));
}

Script html() { return answer(kPage, "200 OK", "Content-Type: text/html\r\n"); }

Script notFound() { return answer(kPage, "404 Not Found", "Content-Type: text/html\r\n"); }

Script redirect(const std::string& location) {
  return answer(kPage, "302 Found", "Location: " + location + "\r\n");
}

Script garbage() {
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>((i * 167 + 13) % 256);
  return raw(bytes);
}

Script inTurn(const std::vector<Script>& scripts) {
  return [scripts](Peer& peer) { scripts.at(std::min(peer.number(), scripts.size() - 1))(peer); };
}

}  // namespace Velantrix::Test::Scripts
