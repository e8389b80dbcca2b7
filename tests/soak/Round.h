// One round of a soak: what is verified and how, what goes wrong meanwhile, and which verdicts that
// leaves possible.
//
//   const Round round = drawRound(dice, cases);
//   const std::set<int> possible = possibleVerdicts(round, cacheIsRight, timeIsUp);
//
#pragma once

#include "soak/Cache.h"
#include "soak/Cases.h"
#include "soak/Dice.h"
#include "soak/Faults.h"

#include <chrono>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Test::Soak {

enum class Way {
  Store,   ///< a store for this verification
  Clone,   ///< a clone of a store that lives as long as the process
  Simple,  ///< the simple verifier, over the fixed directories
  Threads  ///< two threads at once, each with a store of its own
};

/// What the caller asks for besides.
enum class Demand { Nothing, RightAddress, WrongAddress, RightUse, WrongUse };

/// What a verification may spend on the network, but for the simple verifier's: the least there is.
inline constexpr std::chrono::seconds kNetworkTime(1);

/// A verdict that is no code of OpenSSL's: an exception, or what the simple verifier makes of one.
inline constexpr int kNoVerdict = -1;

struct Round {
  const Case* target = nullptr;
  Way way = Way::Store;
  Demand demand = Demand::Nothing;
  bool untrusted = false;          ///< a store that has the root alone, and the rest with the leaf
  bool directory = false;          ///< LDAP is asked too
  bool openSSLRevocation = false;  ///< instead of the library's own
  bool decoded = false;            ///< certificates are read from their DER
  int flags = 0;
  Service service = Service::Web;
  Fault fault = Fault::None;
  std::size_t random = 0;
  CacheTrouble cache = CacheTrouble::None;
};

Round drawRound(Dice& dice, const std::vector<Case>& cases);

/// What is asserted of a round.
///
/// When all that it relies on is well, there is one verdict. Otherwise there are also those that
/// say that something could not be found out, and these are never "valid" (0) and never "revoked".
/// So whatever servers do: what must not be accepted is not, and nobody gets somebody else's
/// certificate revoked.
///
/// Not relied on, and so without effect on the verdict: the cache directory; an OCSP responder that
/// answers at once, while the CRLs are there; CRLs, after a good OCSP answer; all of it, without
/// revocation checks.
///
/// @param cacheIsRight no wrong CRL that looks fresh can be in the cache
/// @param timeIsUp     it took so long, on a busy machine, that the time for the network may have
///                     been spent though all was well
std::set<int> possibleVerdicts(const Round& round, bool cacheIsRight, bool timeIsUp);

std::string describe(const Round& round);

}  // namespace Velantrix::Test::Soak
