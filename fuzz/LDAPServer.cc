#include "LDAPServer.h"

#include "support/Loopback.h"

#include <velantrix/Assert.h>

#include <array>
#include <csignal>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace Velantrix::Fuzz {

LDAPServer::LDAPServer() : listener_(Test::bindTo(0)), port_(Test::boundPort(listener_)) {
  PKX509_ASSERT(::listen(listener_.number(), 16) == 0);
  // The alarms of libFuzzer are the main thread's.
  sigset_t all;
  sigset_t former;
  PKX509_ASSERT(::sigfillset(&all) == 0);
  PKX509_ASSERT(::pthread_sigmask(SIG_SETMASK, &all, &former) == 0);
  std::thread([this] { run(); }).detach();
  PKX509_ASSERT(::pthread_sigmask(SIG_SETMASK, &former, nullptr) == 0);
}

LDAPConnection::RefServer LDAPServer::server(bool startTls) const {
  return LDAPConnection::RefServer("ldap://127.0.0.1:" + std::to_string(port_),
                                   {.startTls = startTls, .verifyPeer = false});
}

void LDAPServer::answer(std::string octets) {
  const std::lock_guard<std::mutex> lock(mutex_);
  answer_ = std::move(octets);
}

void LDAPServer::run() {
  for (;;) {
    serve(
        Test::Descriptor(::accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC), "accept4"));
  }
}

// The client may be gone at any time. What it says is read to the end: closing a socket with
// something unread would reset the connection, and could take the answer away from the client.
void LDAPServer::serve(const Test::Descriptor& client) {
  std::string octets;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    octets = answer_;
  }
  for (std::string_view left = octets; !left.empty();) {
    const ssize_t sent = ::send(client.number(), left.data(), left.size(), MSG_NOSIGNAL);
    if (sent < 0) return;
    left.remove_prefix(static_cast<std::size_t>(sent));
  }
  static_cast<void>(::shutdown(client.number(), SHUT_WR));
  std::array<char, 4096> block;
  while (::recv(client.number(), block.data(), block.size(), 0) > 0) {
  }
}

LDAPServer& ldapServer() {
  static auto* const server = new LDAPServer;
  return *server;
}

std::optional<Tlv> berFront(std::string_view octets) {
  if (octets.size() < 2) return std::nullopt;
  const auto octet = [&](std::size_t i) { return static_cast<unsigned char>(octets[i]); };
  Tlv element{octet(0), 2, octet(1), {}};
  if (element.length >= 0x80) {
    const std::size_t count = octet(1) & 0x7fU;
    if (count == 0 || count > 4 || octets.size() < 2 + count) return std::nullopt;
    element.length = 0;
    for (std::size_t i = 0; i < count; ++i) element.length = element.length << 8U | octet(2 + i);
    element.head += count;
  }
  element.content = octets.substr(element.head, static_cast<std::size_t>(element.length));
  return element;
}

std::optional<std::string_view> berTake(std::string_view& octets, unsigned char tag) {
  const std::optional<Tlv> element = berFront(octets);
  if (!element || !element->whole() || element->tag != tag) return std::nullopt;
  octets.remove_prefix(element->head + element->content.size());
  return element->content;
}

}  // namespace Velantrix::Fuzz
