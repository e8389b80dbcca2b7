// HTTP answers, over loopback. The first octet bounds the body, the rest is what the server sends.
//
// For the connection one thread does it all: the kernel accepts for a listening socket, and what the
// server sends fits into the socket's buffer. So the answer, its end included, is there before the
// client asks. The client for the web is answered by a thread, at each of its hops in the same way. The
// server is its proxy as well, so that nobody else is asked wherever a redirect leads.
#include "Fuzz.h"
#include "foundation/net/http/HTTPConnection.h"
#include "foundation/net/http/WebClient.h"
#include "support/Descriptor.h"
#include "support/Loopback.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <vector>

namespace Velantrix::Fuzz::HTTPAnswerTarget {
namespace {

namespace HTTP = LW::HTTP;
using Outcome = HTTP::Connection::Outcome;

constexpr int kSendBuffer = 512 * 1024;

class Server {
 public:
  Server() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket") {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    // The sockets that are accepted inherit the size.
    PKX509_ASSERT(::setsockopt(socket_.number(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer,
                               sizeof kSendBuffer) == 0);
    PKX509_ASSERT(::bind(socket_.number(), reinterpret_cast<sockaddr*>(&address), length) == 0);
    PKX509_ASSERT(::listen(socket_.number(), 16) == 0);
    PKX509_ASSERT(::getsockname(socket_.number(), reinterpret_cast<sockaddr*>(&address), &length) ==
                  0);
    port_ = ntohs(address.sin_port);
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  boost::asio::ip::tcp::endpoint endpoint() const {
    return {boost::asio::ip::address_v4::loopback(), port_};
  }

  /// The other end of a connection that stands; it has said everything.
  Test::Descriptor answer(std::string_view bytes) const {
    return say(
        Test::Descriptor(
            ::accept4(socket_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK), "accept4"),
        bytes);
  }

  /// The same for all connections that are made while it works.
  template <class Work>
  void answerAll(std::string_view bytes, const Work& work) const {
    const Test::Descriptor stop(::eventfd(0, EFD_CLOEXEC), "eventfd");
    std::thread thread([&] {
      // Closed when nobody reads any more: what a request leaves unread would reset the answer.
      std::vector<Test::Descriptor> peers;
      for (;;) {
        Test::Descriptor peer = Test::acceptUntil(stop, socket_);
        if (peer.number() < 0) return;
        peers.push_back(say(std::move(peer), bytes));
      }
    });
    work();
    PKX509_ASSERT(::eventfd_write(stop.number(), 1) == 0);
    thread.join();
  }

 private:
  static Test::Descriptor say(Test::Descriptor peer, std::string_view bytes) {
    if (!bytes.empty()) {
      const ssize_t sent = ::send(peer.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      PKX509_ASSERT(sent == static_cast<ssize_t>(bytes.size()));
    }
    PKX509_ASSERT(::shutdown(peer.number(), SHUT_WR) == 0);
    return peer;
  }

  Test::Descriptor socket_;
  unsigned short port_ = 0;
};

const Server& server() {
  static const auto* const made = new Server;
  return *made;
}

bool containsWithoutCase(std::string_view text, std::string_view part) {
  const auto same = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

// What a complete answer's body has to be, told from the answer without a parser.
void checkBody(std::string_view answer, std::string_view body) {
  PKX509_ASSERT(answer.starts_with("HTTP/1.0 200") || answer.starts_with("HTTP/1.1 200"));
  const std::size_t end = answer.find("\r\n\r\n");
  PKX509_ASSERT(end != std::string_view::npos);
  const std::string_view header = answer.substr(0, end);
  const std::string_view rest = answer.substr(end + 4);
  if (containsWithoutCase(header, "\ntransfer-encoding")) {
    PKX509_ASSERT(body.size() <= rest.size());
  } else if (containsWithoutCase(header, "\ncontent-length")) {
    PKX509_ASSERT(rest.starts_with(body));
  } else {
    PKX509_ASSERT(rest == body);
  }
}

// Through a proxy, a redirect is a request to the same server.
void checkWebClient(const std::string& answer, std::size_t limit, bool direct) {
  const HTTP::WebTerms terms{.proxy = direct ? Uri() : Uri(server().url()), .maxContent = limit};
  const HTTP::WebRequest request{
      .uri = Uri(direct ? server().url() : "http://host.example/a/b?c"),
      .body = direct ? std::optional<std::string>("body") : std::nullopt,  // follows nothing
      .validators = {.etag = "\"tag\""}};
  server().answerAll(answer, [&] {
    const HTTP::WebAnswer web = HTTP::ask(request, terms);
    const bool failed = web.failure.kind != HTTP::Failure::Kind::kNone;
    PKX509_ASSERT(failed == !(web.complete || web.notModified));
    PKX509_ASSERT(failed == !web.problem.empty());
    PKX509_ASSERT(web.failure.kind != HTTP::Failure::Kind::kTimedOut);
    PKX509_ASSERT(web.failure.kind != HTTP::Failure::Kind::kNoTime);
    PKX509_ASSERT(web.failure.detail.size() <= HTTP::Failure::kMaximumDetail);
    PKX509_ASSERT(!(web.complete && web.notModified));
    PKX509_ASSERT(web.redirects <= (direct ? 0 : HTTP::WebAnswer::kMaximumRedirects));
    PKX509_ASSERT(HTTP::isHandled(web.last) && !web.last.hostname().empty());
    PKX509_ASSERT(web.received <= limit);
    PKX509_ASSERT(web.content->length() == (web.complete ? web.received : 0));
    for (const std::string& text : {web.validators.etag, web.validators.lastModified}) {
      PKX509_ASSERT(text.empty() || HTTP::Validators::isFit(text));
    }
    if (web.maxAge.has_value()) PKX509_ASSERT(web.maxAge->count() >= 0);
  });
}

}  // namespace

PKX509_FUZZ_TARGET(http_answer) {
  begin();
  if (size == 0) return 0;
  const std::size_t limit = data[0] == 0 ? 1 : std::size_t{data[0]} * data[0];
  const std::string answer = text(data + 1, std::min(size - 1, std::size_t{kSendBuffer} / 4));

  int outcome = 0;
  PKX509_ASSERT(accepted([&] {
    HTTP::RefStream stream(HTTP::Stream::kPlain);
    HTTP::RefConnection connection(stream);
    connection->maxQueryTime(5);
    connection->maxContent(limit);
    PKX509_ASSERT(connection->connect(server().endpoint()));
    const Test::Descriptor peer = server().answer(answer);
    connection->send("GET / HTTP/1.0\r\n\r\n");
    outcome = connection->receive();
    const std::string body = text(connection->content().data(), connection->content().length());
    PKX509_ASSERT(outcome >= Outcome::kClosed && outcome <= Outcome::kComplete);
    PKX509_ASSERT(outcome != Outcome::kTimedOut);  // the end of the answer was there at once
    PKX509_ASSERT(connection->contentReceived() <= limit);
    const HTTP::Failure& failure = connection->failure();
    PKX509_ASSERT((outcome == Outcome::kComplete) == (failure.kind == HTTP::Failure::Kind::kNone));
    PKX509_ASSERT(failure.detail.size() <= HTTP::Failure::kMaximumDetail);
    if (outcome == Outcome::kComplete) {
      PKX509_ASSERT(body.size() == connection->contentReceived());
      checkBody(answer, body);
    } else {
      PKX509_ASSERT(body.empty());
    }
    PKX509_ASSERT(connection->receive() == Outcome::kClosed);  // nothing was asked for
  }));
  for (const bool direct : {true, false}) {
    PKX509_ASSERT(accepted([&] { checkWebClient(answer, limit, direct); }));
  }
  return 0;
}

}  // namespace Velantrix::Fuzz::HTTPAnswerTarget
