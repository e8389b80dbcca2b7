#include "foundation/net/HostResolver.h"

#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/NetworkBudget.h"

#include <boost/asio/ip/address.hpp>

#include <algorithm>
#include <ares.h>
#include <arpa/inet.h>
#include <array>
#include <memory>
#include <netinet/in.h>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velantrix {

namespace {

// RFC 1035, 2.3.4, in text form; a longer name exists nowhere.
constexpr std::size_t kMaximumName = 254;
// A name server gets this long before it is asked again, or the next one is.
constexpr int kTryMilliseconds = 1500;
constexpr int kTries = 3;
constexpr std::size_t kMaximumAddresses = 16;

struct DestroyChannel {
  void operator()(ares_channel channel) const noexcept { ares_destroy(channel); }
};
using Channel = std::unique_ptr<std::remove_pointer_t<ares_channel>, DestroyChannel>;

struct FreeAddresses {
  void operator()(ares_addrinfo* addresses) const noexcept { ares_freeaddrinfo(addresses); }
};

bool libraryReady() {
  static const bool ready = ares_library_init(ARES_LIB_INIT_ALL) == ARES_SUCCESS;
  return ready;
}

std::string numericForm(const sockaddr* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* bytes = nullptr;
  if (address->sa_family == AF_INET) {
    bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
  } else if (address->sa_family == AF_INET6) {
    bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  } else {
    return {};
  }
  const char* const made = inet_ntop(address->sa_family, bytes, text.data(), text.size());
  return made == nullptr ? std::string() : std::string(made);
}

// One question, and the sockets that c-ares asks it on.
class Resolution {
 public:
  HostAddresses run(const std::string& name, std::chrono::milliseconds bound) {
    const NetworkTimer timer(bound);
    if (Cancellation::requested()) return {.status = HostAddresses::kCancelled};
    if (timer.expired()) return {.status = HostAddresses::kNoTime};
    if (!open()) return {.status = status_};
    ares_addrinfo_hints hints{};
    hints.ai_family = AF_UNSPEC;
    ares_getaddrinfo(channel_.get(), name.c_str(), nullptr, &hints, s_answer, this);
    while (!answered_ && !timer.expired() && !stopped_) step(timer.deadline());
    // Answers what is still open, so that nothing comes back here later.
    channel_.reset();
    if (!addresses_.empty()) return {.addresses = std::move(addresses_)};
    if (stopped_) return {.status = HostAddresses::kCancelled};
    return {.status = status_ == ARES_SUCCESS ? ARES_ENODATA : status_};
  }

 private:
  // Neither callback lets an exception into c-ares: without memory there is no answer.
  static void s_answer(void* self, int status, int /*timeouts*/, ares_addrinfo* found) noexcept {
    const std::unique_ptr<ares_addrinfo, FreeAddresses> owner(found);
    auto& resolution = *static_cast<Resolution*>(self);
    resolution.answered_ = true;
    if (status == ARES_ENOMEM) Shortfall::note();
    if (status != ARES_EDESTRUCTION) resolution.status_ = status;
    if (status != ARES_SUCCESS || found == nullptr) return;
    try {
      for (const ares_addrinfo_node* node = found->nodes;
           node != nullptr && resolution.addresses_.size() < kMaximumAddresses;
           node = node->ai_next) {
        std::string address = numericForm(node->ai_addr);
        if (!address.empty()) resolution.addresses_.push_back(std::move(address));
      }
    } catch (const std::bad_alloc&) {
      Shortfall::note();
      resolution.addresses_.clear();
      resolution.status_ = ARES_ENOMEM;
    }
  }

  static void s_socket(void* self, ares_socket_t descriptor, int readable, int writable) noexcept {
    auto& resolution = *static_cast<Resolution*>(self);
    std::vector<pollfd>& sockets = resolution.sockets_;
    std::erase_if(sockets, [&](const pollfd& entry) { return entry.fd == descriptor; });
    const int events = (readable != 0 ? POLLIN : 0) | (writable != 0 ? POLLOUT : 0);
    if (events == 0) return;
    try {
      sockets.push_back({descriptor, static_cast<short>(events), 0});
    } catch (const std::bad_alloc&) {
      Shortfall::note();
      resolution.status_ = ARES_ENOMEM;
      resolution.answered_ = true;
    }
  }

  bool open() {
    if (!libraryReady()) {
      status_ = ARES_ENOTINITIALIZED;
      return false;
    }
    ares_options options{};
    options.timeout = kTryMilliseconds;
    options.tries = kTries;
    options.sock_state_cb = s_socket;
    options.sock_state_cb_data = this;
    ares_channel made = nullptr;
    const int status = ares_init_options(
        &made, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB);
    if (status != ARES_SUCCESS) {
      if (status == ARES_ENOMEM) Shortfall::note();
      status_ = status;
      return false;
    }
    channel_.reset(made);
    return true;
  }

  // Waits until a socket is ready, c-ares wants to try again, the deadline comes or somebody asks to
  // stop.
  void step(NetworkTimer::Clock::time_point deadline) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - NetworkTimer::Clock::now());
    timeval bound{};
    bound.tv_sec = static_cast<time_t>(left.count() / 1000);
    bound.tv_usec = static_cast<suseconds_t>(left.count() % 1000 * 1000);
    timeval wait{};
    const timeval* const until = ares_timeout(channel_.get(), &bound, &wait);
    const auto pause = std::clamp<long>(until->tv_sec * 1000 + (until->tv_usec + 999) / 1000, 0,
                                        static_cast<long>(left.count()));
    std::vector<pollfd> ready = sockets_;  // c-ares changes the list while it works
    ready.push_back({Cancellation::descriptor(), POLLIN, 0});
    const int count = ::poll(ready.data(), ready.size(), static_cast<int>(pause));
    stopped_ = Cancellation::requested();
    if (stopped_) return;
    ready.pop_back();
    if (count <= 0) {  // also EINTR: c-ares looks at its clock and goes on
      ares_process_fd(channel_.get(), ARES_SOCKET_BAD, ARES_SOCKET_BAD);
      return;
    }
    for (const pollfd& entry : ready) {
      if (entry.revents == 0) continue;
      const bool failed = (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
      ares_process_fd(channel_.get(),
                      failed || (entry.revents & POLLIN) != 0 ? entry.fd : ARES_SOCKET_BAD,
                      (entry.revents & POLLOUT) != 0 ? entry.fd : ARES_SOCKET_BAD);
    }
  }

  Channel channel_;
  std::vector<pollfd> sockets_;
  std::vector<std::string> addresses_;
  int status_ = ARES_ETIMEOUT;  // as long as nobody says anything else
  bool answered_ = false;
  bool stopped_ = false;  // somebody asked for it
};

}  // namespace

std::string HostAddresses::reason() const {
  if (status == kNoTime) return "no time was left for the network";
  if (status == kCancelled) return "somebody asked to stop";
  return ares_strerror(status);
}

HostAddresses resolveHost(const std::string& name, std::chrono::milliseconds bound) {
  // Parsers and c-ares see C strings: they would take what stands in front of a NUL for the whole.
  if (name.empty() || name.find('\0') != std::string::npos) return {.status = ARES_EBADNAME};
  boost::system::error_code notNumeric;
  boost::asio::ip::make_address(name, notNumeric);
  if (!notNumeric) return {.addresses = {name}};
  if (name.size() > kMaximumName) return {.status = ARES_EBADNAME};
  const NoCancellation untilReturn;
  return Resolution().run(name, bound);
}

}  // namespace Velantrix
