// Why a request has no whole answer, for whoever reports it. No decision depends on it.
//
//   if (!connection->connect(endpoint)) {
//     const HTTP::Failure& failure = connection->failure();
//     if (failure.kind == HTTP::Failure::Kind::kConnect && failure.error == ECONNREFUSED) ...
//   }
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix {
struct HostAddresses;
}

namespace Velantrix::LW::HTTP {

/// A plain value. How far the request came shows in the kind: a host that does not accept a
/// connection in time is `kConnect` with ETIMEDOUT, one that does not shake hands in time `kTls`
/// with ETIMEDOUT.
struct Failure {
  enum class Kind {
    kNone,            ///< nothing went wrong
    kClientIdentity,  ///< the client's certificate or key cannot be loaded
    kResolve,         ///< the host has no address, or nobody named one in time
    kRefusedAddress,  ///< the address policy refuses the address: its kind and itself, in the detail
    kProxy,           ///< the proxy cannot be reached, or wants to know who asks
    kConnect,         ///< no TCP connection
    kTls,             ///< TLS failed, in the handshake or behind it
    kTimedOut,        ///< connected, and no whole answer in time
    kCutShort,        ///< the answer ends in the middle
    kTooLarge,        ///< content or header above their bounds
    kStatus,          ///< another HTTP status than 200
    kMalformed,       ///< no HTTP/1.0 or 1.1 answer
    kEncoding,        ///< content in an encoding, which is the detail, that was not asked for
    kClosed,          ///< not connected, or closed or reset by the peer before it answered
    kNoTime,          ///< not tried: the verification had no time left for the network
    kCancelled        ///< somebody asked this thread to stop, before or meanwhile
  };

  /// A peer may send much for people, so the detail is cut.
  static constexpr std::size_t kMaximumDetail = 256;

  Kind kind = Kind::kNone;
  int error = 0;       ///< an errno, or for `kResolve` a status of c-ares; 0: neither was seen
  int httpStatus = 0;  ///< of `kStatus`, and of `kProxy` that wants to know
  /// For people, without a prefix; may be empty. Of `kStatus` it is the reason that the peer sent,
  /// in whatever octets, or the usual one where it sent none; of a redirect that is not followed,
  /// why.
  std::string detail = {};
  std::string file = {};  ///< of `kClientIdentity`: which one

  bool operator==(const Failure& other) const = default;
};

/// What a detail may be of a text.
std::string detailOf(std::string_view text);

/// What kept a request from its answer at a step whose failures are of the kind. What OpenSSL says
/// is always `kTls`, with OpenSSL's reason.
Failure failureOf(Failure::Kind kind, const boost::system::error_code& error);

/// Why a host has no address.
Failure failureOf(const HostAddresses& none);

}  // namespace Velantrix::LW::HTTP
