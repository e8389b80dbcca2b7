#include "soak/Servers.h"

#include "soak/Front.h"
#include "soak/Pump.h"
#include "support/ChildProcess.h"
#include "support/Exchange.h"
#include "support/FaultScripts.h"
#include "support/OCSPBuilder.h"
#include "support/OCSPResponder.h"
#include "support/Peer.h"
#include "support/Slapd.h"
#include "support/WebServer.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Velantrix::Test::Soak {

namespace {

using namespace std::chrono_literals;

constexpr std::array<Level, kLevels> kAllLevels = {Level::Root, Level::Middle, Level::Lower};

/// Everything that fronts do wrong, under one lock.
struct State {
  std::mutex mutex;
  Service service = Service::Web;
  Fault fault = Fault::None;
  std::size_t random = 0;
  Servers::Counts counts;

  /// What is wrong with this service, which has a connection now.
  std::pair<Fault, std::size_t> faultOf(Service asked) {
    const std::lock_guard<std::mutex> lock(mutex);
    const Fault now = asked == service ? fault : Fault::None;
    ++counts.served.at(static_cast<std::size_t>(asked)).at(static_cast<std::size_t>(now));
    return {now, random};
  }
};

void reset(Descriptor connection) {
  const linger now{1, 0};
  setsockopt(connection.number(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void play(const Script& script, Descriptor connection, const Descriptor& stop) {
  FaultLog log;  // of this connection only
  Peer peer(std::move(connection), nullptr, stop, log, log.opened());
  script(peer);
  peer.close();
}

}  // namespace

class Servers::Keeper {
 public:
  Keeper(const Ports& ports, const Authorities& authorities, const std::vector<Plan>& plans)
      : authorities_(authorities),
        entries_(directoryOf(authorities, plans)),
        responders_{
            OCSPResponder({.ca = &authorities.middle, .index = indexOf(Level::Middle, plans)}),
            OCSPResponder({.ca = &authorities.lower,
                           .signer = &authorities.signer,
                           .index = indexOf(Level::Lower, plans)})},
        webFront_(ports.web, [this](Descriptor connection,
                                    const Descriptor& stop) { web(std::move(connection), stop); }),
        responderFronts_{{{ports.responders[0],
                           [this](Descriptor connection, const Descriptor& stop) {
                             responder(0, std::move(connection), stop);
                           }},
                          {ports.responders[1],
                           [this](Descriptor connection, const Descriptor& stop) {
                             responder(1, std::move(connection), stop);
                           }}}},
        directoryFront_(ports.directory,
                        [this](Descriptor connection, const Descriptor& stop) {
                          directory(std::move(connection), stop);
                        }),
        forbidden_(ports.forbidden, [this](const Descriptor& /*connection*/,
                                           const Descriptor& /*stop*/) { countForbidden(); }) {
    for (const Level level : kAllLevels) {
      writeFile(web_.root() / crlPath(level).substr(1),
                der(crlOf(level, authorities, plans).get()));
      const Issued& issuer = authorities.at(level);
      const Issued& impostor = authorities.impostors.at(static_cast<std::size_t>(level));
      wrong_.push_back(
          {der(makeCRL({.issuer = &issuer, .badSignature = true}).get()),
           der(makeCRL({.issuer = &issuer, .signer = impostor.key}).get()),
           der(makeCRL({.issuer = &issuer, .lastUpdate = -48h, .nextUpdate = -24h}).get())});
    }
    startDirectory();
  }

  std::uint16_t webPort() const { return portOf(web_.url("")); }
  std::uint16_t responderPort() const { return portOf(responders_[0].url("")); }

  void disturb(const Order& order) {
    {
      const std::lock_guard<std::mutex> lock(state_.mutex);
      state_.service = order.service;
      state_.fault = order.fault;
      state_.random = order.random;
      if (order.fault == Fault::Stopped || order.fault == Fault::Refused) {
        ++state_.counts.served.at(static_cast<std::size_t>(order.service))
              .at(static_cast<std::size_t>(order.fault));
      }
    }
    if (order.fault == Fault::Refused) closeFronts(order.service);
    if (order.fault == Fault::Stopped) stop(order.service);
  }

  void settle() {
    Fault former = Fault::None;
    {
      const std::lock_guard<std::mutex> lock(state_.mutex);
      former = std::exchange(state_.fault, Fault::None);
    }
    if (former == Fault::Stopped) start(state_.service);
    webFront_.open();
    for (Front& front : responderFronts_) front.open();
    directoryFront_.open();
  }

  Counts counts() {
    const std::lock_guard<std::mutex> lock(state_.mutex);
    return state_.counts;
  }

 private:
  struct WrongCRLs {
    std::string badSignature;
    std::string stranger;
    std::string expired;
  };

  void closeFronts(Service service) {
    if (service == Service::Web) webFront_.close();
    if (service == Service::Directory) directoryFront_.close();
    if (service != Service::Responders) return;
    for (Front& front : responderFronts_) front.close();
  }

  void stop(Service service) {
    if (service == Service::Web) web_.stop();
    if (service == Service::Directory) directory_.reset();
    if (service != Service::Responders) return;
    for (OCSPResponder& one : responders_) one.stop();
  }

  void start(Service service) {
    if (service == Service::Web) web_.start();
    if (service == Service::Directory) startDirectory();
    if (service != Service::Responders) return;
    for (OCSPResponder& one : responders_) one.start();
  }

  void startDirectory() {
    auto fresh = std::make_unique<Slapd>();
    fresh->add(entries_);
    directoryPort_ = portOf(fresh->uri());
    directory_ = std::move(fresh);
  }

  /// True when that was all.
  bool hangUp(Fault fault, Descriptor& connection) {
    if (fault == Fault::Reset) reset(std::move(connection));
    return fault == Fault::Reset || fault == Fault::Closed;
  }

  void web(Descriptor connection, const Descriptor& stop) {
    const auto [fault, random] = state_.faultOf(Service::Web);
    if (hangUp(fault, connection)) return;
    const auto wrong = [this, fault = fault](Peer& peer) {
      const auto request = peer.readRequest();
      if (!request) return;
      for (const Level level : kAllLevels) {
        if (request->find(crlPath(level)) == std::string::npos) continue;
        const WrongCRLs& crls = wrong_.at(static_cast<std::size_t>(level));
        peer.write(Scripts::response(fault == Fault::BadSignature ? crls.badSignature
                                     : fault == Fault::Stranger   ? crls.stranger
                                                                  : crls.expired));
      }
    };
    switch (fault) {
      case Fault::Endless:
        return play(random % 2 == 0 ? Scripts::endlessBody() : Scripts::endlessChunks(),
                    std::move(connection), stop);
      case Fault::BadSignature:
      case Fault::Stranger:
      case Fault::Expired:
        return play(wrong, std::move(connection), stop);
      default:
        return http(fault, random, webPort(), std::move(connection), stop);
    }
  }

  void responder(std::size_t number, Descriptor connection, const Descriptor& stop) {
    const auto [fault, random] = state_.faultOf(Service::Responders);
    if (hangUp(fault, connection)) return;
    OCSPAnswer answer{.signer = number == 0 ? &authorities_.middle : &authorities_.signer};
    // The opposite of what is true, as often as not.
    if (random % 2 == 0) answer.singles.front().status = V_OCSP_CERTSTATUS_REVOKED;
    switch (fault) {
      case Fault::Endless:
        return play(Scripts::endlessBody(), std::move(connection), stop);
      case Fault::BadSignature:
        (random % 4 < 2 ? answer.badSignature : answer.tampered) = true;
        break;
      case Fault::Stranger:
        answer.signer =
            random % 4 < 2 ? &authorities_.stranger : &authorities_.impostors.at(number + 1);
        break;
      case Fault::OtherNonce:
        answer.nonce = OCSPNonce::Other;
        break;
      case Fault::TryLater:
        answer.status = OCSP_RESPONSE_STATUS_TRYLATER;
        break;
      default:
        return http(fault, random, portOf(responders_.at(number).url("")), std::move(connection),
                    stop);
    }
    play(Scripts::answerWith(
             [&](const std::string& request) { return ocspAnswer(answer, httpBody(request)); }),
         std::move(connection), stop);
  }

  /// What can be wrong with both kinds of servers.
  static void http(Fault fault, std::size_t random, std::uint16_t server, Descriptor connection,
                   const Descriptor& stop) {
    switch (fault) {
      case Fault::NotFound:
        return play(Scripts::notFound(), std::move(connection), stop);
      case Fault::Html:
        return play(Scripts::html(), std::move(connection), stop);
      case Fault::TooLong:
        return play(random % 2 == 0 ? Scripts::endlessHeaders() : Scripts::endlessHeaderLine(),
                    std::move(connection), stop);
      case Fault::Promise:
        return play(Scripts::hugePromise(), std::move(connection), stop);
      default:
        return pump(std::move(connection), server, fault, random, stop);
    }
  }

  void directory(Descriptor connection, const Descriptor& stop) {
    const auto [fault, random] = state_.faultOf(Service::Directory);
    if (hangUp(fault, connection)) return;
    pump(std::move(connection), directoryPort_, fault, random, stop);
  }

  void countForbidden() {
    const std::lock_guard<std::mutex> lock(state_.mutex);
    ++state_.counts.forbidden;
  }

  const Authorities& authorities_;
  const std::vector<Slapd::Entry> entries_;
  std::vector<WrongCRLs> wrong_;
  State state_;
  WebServer web_;
  std::array<OCSPResponder, 2> responders_;
  std::unique_ptr<Slapd> directory_;
  std::atomic<std::uint16_t> directoryPort_ = 0;
  // Last: their threads use all the others.
  Front webFront_;
  std::array<Front, 2> responderFronts_;
  Front directoryFront_;
  Front forbidden_;
};

Servers::Servers(Ports& ports, const Authorities& authorities, const std::vector<Plan>& plans) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    failWithError("socketpair", errno);
  }
  orders_ = Descriptor(ends[0], "socketpair");
  Descriptor other(ends[1], "socketpair");
  process_ = fork();
  if (process_ < 0) failWithError("fork", errno);
  if (process_ == 0) {
    orders_.reset();
    // The measured process cleans up after itself.
    _exit(keep(other, ports, authorities, plans));
  }
  other.reset();
  const Answer ready = receive();
  ports.ownWeb = ready.ownWeb;
  ports.ownResponder = ready.ownResponder;
}

Servers::~Servers() {
  orders_.reset();
  collect(process_);
}

int Servers::keep(const Descriptor& orders, const Ports& ports, const Authorities& authorities,
                  const std::vector<Plan>& plans) {
  Answer answer;
  const auto reply = [&](const char* error) {
    std::strncpy(answer.error.data(), error, answer.error.size() - 1);
    return send(orders.number(), &answer, sizeof answer, MSG_NOSIGNAL) == sizeof answer;
  };
  try {
    Keeper keeper(ports, authorities, plans);
    answer.ownWeb = keeper.webPort();
    answer.ownResponder = keeper.responderPort();
    Order order{};
    while (reply("") && recv(orders.number(), &order, sizeof order, 0) == sizeof order) {
      if (order.kind == Order::Disturb) keeper.disturb(order);
      if (order.kind == Order::Settle) keeper.settle();
      if (order.kind == Order::Report) answer.counts = keeper.counts();
    }
    return 0;
  } catch (const std::exception& error) {
    reply(error.what());
    return 1;
  }
}

void Servers::disturb(Service service, Fault fault, std::size_t random) const {
  give({Order::Disturb, service, fault, random});
}

void Servers::settle() const { give({Order::Settle, Service::Web, Fault::None, 0}); }

Servers::Counts Servers::counts() const {
  return give({Order::Report, Service::Web, Fault::None, 0}).counts;
}

Servers::Answer Servers::give(const Order& order) const {
  if (send(orders_.number(), &order, sizeof order, MSG_NOSIGNAL) != sizeof order) {
    failWithError("the servers' process is gone", errno);
  }
  return receive();
}

Servers::Answer Servers::receive() const {
  Answer answer;
  if (recv(orders_.number(), &answer, sizeof answer, 0) != sizeof answer) {
    throw std::runtime_error("the servers' process is gone");
  }
  if (answer.error[0] != 0) throw std::runtime_error(answer.error.data());
  return answer;
}

}  // namespace Velantrix::Test::Soak
