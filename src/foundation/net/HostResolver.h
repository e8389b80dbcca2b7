// Asks for the address of a host by its name, with a deadline.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Velantrix {

/// Bounds one resolution unless its caller says something else.
inline constexpr std::chrono::seconds kResolveTime{5};

/// What a resolution came to.
struct HostAddresses {
  static constexpr int kFound = 0;
  /// Nobody was asked: the verification that goes on in this thread has no time left.
  static constexpr int kNoTime = -1;
  /// Somebody asked this thread to stop, before or meanwhile.
  static constexpr int kCancelled = -2;

  std::vector<std::string> addresses = {};  ///< in numeric form
  int status = kFound;  ///< why there are none: one of these, or a status of c-ares (ARES_...)

  /// The status for people.
  std::string reason() const;
};

/// The addresses of the host, those first that are to be tried first, and no more than sixteen; a
/// numeric address is its own. None when the host has none, when the name is none, when no
/// answer came in time, and when somebody asked this thread to stop.
HostAddresses resolveHost(const std::string& name, std::chrono::milliseconds bound = kResolveTime);

}  // namespace Velantrix
