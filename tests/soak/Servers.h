// The servers of a soak, in a process of their own: what they keep is not in what is measured.
//
//   Servers servers(ports, authorities, plans);        // forks
//   servers.disturb(Service::Web, Fault::Cut, dice.below(1000));
//   ... verify ...
//   servers.settle();
//
// A real web server, two real OCSP responders and a real LDAP server stand behind fronts. There is
// one fault at a time. The process ends with the object, and also when the measured one dies.
#pragma once

#include "soak/Cases.h"
#include "soak/Faults.h"
#include "support/Descriptor.h"

#include <array>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Velantrix::Test::Soak {

class Servers {
 public:
  /// How many connections were treated in which way; `Stopped` and `Refused` count themselves.
  struct Counts {
    std::array<std::array<std::uint64_t, kFaults>, kServices> served{};
    std::uint64_t forbidden = 0;  ///< connections where none may come
  };

  /// The process must not have threads. Fills in the ports of the servers themselves.
  Servers(Ports& ports, const Authorities& authorities, const std::vector<Plan>& plans);
  ~Servers();
  Servers(const Servers&) = delete;
  Servers& operator=(const Servers&) = delete;

  /// From here on. `random` chooses the place where it begins, and the like.
  void disturb(Service service, Fault fault, std::size_t random) const;
  /// All are well again.
  void settle() const;
  Counts counts() const;

 private:
  struct Order {
    enum Kind : int { Disturb, Settle, Report } kind;
    Service service;
    Fault fault;
    std::size_t random;
  };
  struct Answer {
    std::array<char, 256> error{};  ///< empty: done
    Counts counts;
    std::uint16_t ownWeb = 0;
    std::uint16_t ownResponder = 0;
  };
  class Keeper;

  static int keep(const Descriptor& orders, const Ports& ports, const Authorities& authorities,
                  const std::vector<Plan>& plans);
  Answer give(const Order& order) const;
  Answer receive() const;

  Descriptor orders_;
  pid_t process_ = -1;
};

}  // namespace Velantrix::Test::Soak
