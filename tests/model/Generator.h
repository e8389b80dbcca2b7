// Invents PKIs: one that is in order, then changed in a few places.
//
//   const Description pki = generate(4711);  // always the same
//
// The order comes first because chance alone hardly ever makes something valid: in the PKI in order
// every certificate's revocation can be told, in one of the ways that there are (the issuer's CRL,
// distribution points, partitions, deltas, CRLs of others), and some are revoked. What is changed
// afterwards is a date, a key, a name, a scope, a number, or where something is to be found.
#pragma once

#include "model/Description.h"

#include <cstdint>

namespace Velantrix::Test::Random {

/// How many keys a description refers to: 0 to kKeys - 1.
inline constexpr int kKeys = 24;

Description generate(std::uint64_t seed);

}  // namespace Velantrix::Test::Random
