// The PKI of a soak: authorities, the certificates that rounds verify, and what is true of them.
//
//   const Ports ports{...};
//   const Authorities authorities(ports);
//   const std::vector<Plan> plans = makePlans();               // known before servers run
//   const std::vector<Case> cases = makeCases(plans, authorities, ports);
//
#pragma once

#include "support/OCSPResponder.h"
#include "support/Pki.h"
#include "support/Slapd.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace Velantrix::Test::Soak {

/// Where certificates send those who verify them. The fronts misbehave; the others are the servers
/// themselves, which are there or not.
struct Ports {
  std::uint16_t web = 0;
  std::array<std::uint16_t, 2> responders{};  ///< of the middle and of the lower authority
  std::uint16_t directory = 0;
  std::uint16_t forbidden = 0;  ///< named by forged certificates only
  std::uint16_t ownWeb = 0;
  std::uint16_t ownResponder = 0;  ///< of the middle authority
};

/// The root's, the middle one's below it, and the lower one's below that.
enum class Level { Root, Middle, Lower };
inline constexpr std::size_t kLevels = 3;

struct Authorities {
  explicit Authorities(const Ports& ports);

  const Issued& at(Level level) const {
    return level == Level::Root ? root : level == Level::Middle ? middle : lower;
  }

  Issued root;
  Issued middle;   ///< its CRL is by http
  Issued lower;    ///< its CRL is in the CRL directory
  Issued revoked;  ///< below the root, which has revoked it
  Issued signer;   ///< answers for the lower authority's responder
  Issued stranger;
  std::vector<Issued> impostors;  ///< with the names of the levels and other keys
};

enum class Truth {
  Good,
  Revoked,
  Expired,
  NotYetValid,
  Forged,
  RevokedAuthority,
  UnknownAuthority
};
const char* nameOf(Truth truth);

/// Where the CRL for a certificate is.
enum class Source { Machine, Web, OwnWeb, Directory };

/// Whom a certificate names as its OCSP responder.
enum class Responder { None, Front, Own };

/// A certificate that is still to be made. Servers have to know its number first.
struct Plan {
  Truth truth = Truth::Good;
  Level level = Level::Root;
  Source source = Source::Machine;
  Responder responder = Responder::None;
  int serial = 0;
};
std::vector<Plan> makePlans();

struct Case {
  Plan plan;
  Issued leaf;
  std::vector<Issued> between;  ///< authorities between it and the root
  std::string address;          ///< of e-mail, which it is for
  bool anchor = false;          ///< the root itself
};
std::vector<Case> makeCases(const std::vector<Plan>& plans, const Authorities& authorities,
                            const Ports& ports);

/// What the servers serve.
Owned<X509_CRL> crlOf(Level level, const Authorities& authorities, const std::vector<Plan>& plans);
std::vector<OCSPEntry> indexOf(Level level, const std::vector<Plan>& plans);
std::vector<Slapd::Entry> directoryOf(const Authorities& authorities,
                                      const std::vector<Plan>& plans);

/// The path under which web servers have it.
std::string crlPath(Level level);

}  // namespace Velantrix::Test::Soak
