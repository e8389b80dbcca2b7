#include "integration/ConnectWatch.h"

#include <arpa/inet.h>
#include <cstring>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Velantrix::Test {

namespace {

ConnectWatch* g_connectWatch = nullptr;

}  // namespace

ConnectWatch::ConnectWatch() { g_connectWatch = this; }
ConnectWatch::~ConnectWatch() { g_connectWatch = nullptr; }

std::uint16_t ConnectWatch::see(std::uint16_t port) {
  ports_.push_back(port);
  const auto found = redirected_.find(port);
  return found == redirected_.end() ? port : found->second;
}

}  // namespace Velantrix::Test

extern "C" __attribute__((visibility("default"))) int connect(int socket, const sockaddr* address,
                                                              socklen_t length) {
  static const auto real =
      reinterpret_cast<int (*)(int, const sockaddr*, socklen_t)>(dlsym(RTLD_NEXT, "connect"));
  sockaddr_in changed{};
  if (Velantrix::Test::g_connectWatch == nullptr || address->sa_family != AF_INET ||
      length != sizeof changed) {
    return real(socket, address, length);
  }
  std::memcpy(&changed, address, sizeof changed);
  changed.sin_port = htons(Velantrix::Test::g_connectWatch->see(ntohs(changed.sin_port)));
  return real(socket, reinterpret_cast<const sockaddr*>(&changed), sizeof changed);
}
