// What is offered of what the authorities of a world have said, and what an adversary adds to it.
#pragma once

#include "model/GroundTruthWorld.h"

#include <cstdint>

namespace Velantrix::Test::Truth {

/// Keys of the adversary's own.
inline constexpr int kStranger = kKeys - 1;
inline constexpr int kOtherStranger = kKeys - 2;

enum class Adversary {
  Idle,   ///< everything that is current is where it belongs, and nothing else
  Active  ///< withholds, replays, forges, and puts anything anywhere
};

/// Forged lists and certificates are added to the world, in place of those of the last call.
Offer makeOffer(World& world, std::uint64_t seed, Adversary adversary);

}  // namespace Velantrix::Test::Truth
