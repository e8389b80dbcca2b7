// What can be wrong with a server during a round of a soak.
#pragma once

#include <array>
#include <cstddef>
#include <span>

namespace Velantrix::Test::Soak {

enum class Service { Web, Responders, Directory };
inline constexpr std::size_t kServices = 3;

enum class Fault {
  None,
  Stopped,  ///< the process itself; it is started again after the round
  Refused,  ///< nobody listens
  Closed,
  Reset,
  Cut,  ///< a part of the right answer
  Garbage,
  Flipped,  ///< one bit of the right answer is another
  NotFound,
  Html,
  TooLong,  ///< headers, or an OCSP answer, without end
  Endless,  ///< a body, up to what is accepted of a CRL
  Promise,  ///< 4 GiB are announced
  BadSignature,
  Stranger,  ///< signed by somebody with the right name and another key
  Expired,
  OtherNonce,
  TryLater,
  Late,     ///< half of the right answer, and the rest after a while
  Trickle,  ///< the right answer, too slowly
  Silence
};
inline constexpr std::size_t kFaults = static_cast<std::size_t>(Fault::Silence) + 1;

struct FaultKind {
  Fault fault;
  const char* name;
  std::array<int, kServices> weight;  ///< how often; 0: makes no sense for the service
  /// It can use up the time that a verification has for the network, so that what is asked after it
  /// is not reached either. Not for the simple verifier, whose bounds cannot be set.
  bool slow;
  bool staysInCache;  ///< it can leave a wrong CRL behind that looks fresh
};

const FaultKind& kindOf(Fault fault);
std::span<const FaultKind> allFaults();

const char* nameOf(Service service);

}  // namespace Velantrix::Test::Soak
