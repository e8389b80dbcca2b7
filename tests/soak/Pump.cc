#include "soak/Pump.h"

#include "support/Loopback.h"
#include "support/Peer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace Velantrix::Test::Soak {

namespace {

constexpr std::chrono::milliseconds kLate(200);
constexpr std::chrono::milliseconds kBetweenBytes(50);

class Pump {
 public:
  Pump(Descriptor client, std::uint16_t server, Fault fault, std::size_t at, const Descriptor& stop)
      : client_(std::move(client)), port_(server), stop_(stop), fault_(fault), at_(at) {}

  void run() {
    std::array<char, 16384> block{};
    for (bool open = true; open;) {
      std::array<pollfd, 3> wait = {{{stop_.number(), POLLIN, 0},
                                     {client_.number(), POLLIN, 0},
                                     {server_.number(), POLLIN, 0}}};
      if (poll(wait.data(), wait.size(), -1) < 0) continue;
      if (wait[0].revents != 0) throw Peer::Stopped();
      if (wait[1].revents != 0) {
        const ssize_t count = recv(client_.number(), block.data(), block.size(), 0);
        if (count <= 0) return;
        // Not before: `openssl ocsp` goes round in circles when nothing comes.
        if (server_.number() < 0) server_ = connectTo(port_);
        open = sendAll(server_, {block.data(), static_cast<std::size_t>(count)});
      }
      if (open && wait[2].revents != 0) {
        const ssize_t count = recv(server_.number(), block.data(), block.size(), 0);
        if (count <= 0) return;
        open = answer({block.data(), static_cast<std::size_t>(count)});
      }
    }
  }

 private:
  /// False: the connection is to end.
  bool answer(std::string bytes) {
    const std::size_t begin = passed_;
    passed_ += bytes.size();
    if (fault_ == Fault::None || passed_ <= at_) return sendAll(client_, bytes);
    const std::size_t right = at_ > begin ? at_ - begin : 0;  // so many bytes are as they should be
    const std::string head = bytes.substr(0, right);
    switch (fault_) {
      case Fault::Flipped:
        if (begin <= at_) bytes.at(right) = static_cast<char>(bytes.at(right) ^ 0x10);
        return sendAll(client_, bytes);
      case Fault::Cut:
        sendAll(client_, head);
        return false;
      case Fault::Garbage:
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(right), bytes.end(), '\x85');
        sendAll(client_, bytes);
        return false;  // it may have announced more, and would be waited for
      case Fault::Late:
        if (!sendAll(client_, head)) return false;
        if (begin <= at_) pause(kLate);
        return sendAll(client_, bytes.substr(right));
      case Fault::Trickle:
        if (!sendAll(client_, head)) return false;
        return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(right), bytes.end(),
                           [this](char byte) {
                             pause(kBetweenBytes);
                             return sendAll(client_, {&byte, 1});
                           });
      default:  // silence
        return sendAll(client_, head);
    }
  }

  bool sendAll(const Descriptor& to, std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t count = send(to.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
      if (count < 0 && errno != EAGAIN) return false;
      if (count >= 0) continue;
      std::array<pollfd, 2> wait = {{{stop_.number(), POLLIN, 0}, {to.number(), POLLOUT, 0}}};
      poll(wait.data(), wait.size(), -1);
      if (wait[0].revents != 0) throw Peer::Stopped();
    }
    return true;
  }

  void pause(std::chrono::milliseconds time) const {
    pollfd wait{stop_.number(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(time.count())) > 0) throw Peer::Stopped();
  }

  const Descriptor client_;
  const std::uint16_t port_;
  Descriptor server_;  ///< poll(2) passes over a negative number
  const Descriptor& stop_;
  const Fault fault_;
  const std::size_t at_;
  std::size_t passed_ = 0;  ///< bytes from the server
};

}  // namespace

void pump(Descriptor client, std::uint16_t server, Fault fault, std::size_t at,
          const Descriptor& stop) {
  Pump(std::move(client), server, fault, at, stop).run();
}

}  // namespace Velantrix::Test::Soak
