// One input, and what either verifier says about it.
//
//   EXPECT_EQ(verdicts(world.store, leaf), (Verdicts{.classic = 0, .conforming = 23}));
#pragma once

#include "unit/verify/World.h"

#include <pkx509/ConformingVerifier.h>

#include <list>
#include <ostream>

namespace Velantrix::Test {

struct Verdicts {
  int classic;
  int conforming;

  friend bool operator==(const Verdicts&, const Verdicts&) = default;
  friend void PrintTo(const Verdicts& verdicts, std::ostream* out) {
    *out << "Verifier " << verdicts.classic << ", ConformingVerifier " << verdicts.conforming;
  }
};

/// Both with their defaults, in a store of its own, since the one leaves flags and certificates in it.
inline int classicVerdict(const RefObjectStore& store, const Issued& issued,
                          const std::list<Issued>& untrusted = {}) {
  return Verifier(store->clone(), handle(issued), stackOf(untrusted), false).isValid();
}

/// Loopback may be contacted: the servers of the tests are there.
inline int conformingVerdict(const RefObjectStore& store, const Issued& issued,
                             const std::list<Issued>& untrusted = {}) {
  ConformingVerifier verifier(store->clone(), handle(issued), stackOf(untrusted));
  verifier.addressPolicy(AddressPolicy());
  return verifier.isValid();
}

inline Verdicts verdicts(const RefObjectStore& store, const Issued& issued,
                         const std::list<Issued>& untrusted = {}) {
  return {.classic = classicVerdict(store, issued, untrusted),
          .conforming = conformingVerdict(store, issued, untrusted)};
}

}  // namespace Velantrix::Test
