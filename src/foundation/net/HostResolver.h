// Asks for the address of a host by its name, with a deadline.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Velantrix {

/// Bounds one resolution.
inline constexpr std::chrono::seconds kResolveTime{5};

/// What a resolution came to.
struct HostAddresses {
  static constexpr int kFound = 0;
  /// Nobody was asked: the verification that goes on in this thread has no time left.
  static constexpr int kNoTime = -1;

  std::vector<std::string> addresses = {};  ///< in numeric form
  int status = kFound;  ///< why there are none: `kNoTime`, or a status of c-ares (ARES_...)

  /// The status for people.
  std::string reason() const;
};

/// The addresses of the host, those first that are to be tried first, and no more than sixteen; a
/// numeric address is its own. None when the host has none, when the name is none, and when no
/// answer came in time.
HostAddresses resolveHost(const std::string& name);

}  // namespace Velantrix
