// Invents PKIs, what happens in them over four days, and all that their authorities say about it.
#pragma once

#include "model/GroundTruthWorld.h"

#include <cstdint>

namespace Velantrix::Test::Truth {

/// Those of every world that stand outside of its path.
inline constexpr char kLeafLabel[] = "leaf";
inline constexpr char kNeighbourLabel[] = "neighbour";   ///< of the same authority as the leaf
inline constexpr char kSiblingLabel[] = "sibling CA";    ///< another authority below the same root
inline constexpr char kForeignLabel[] = "foreign root";  ///< trusted elsewhere, not for this path
inline constexpr char kNamesakeLabel[] = "namesake";  ///< of an authority, below the foreign root
inline constexpr char kDelegateLabel[] = "delegate";
inline constexpr char kSignerLabel[] = "list signer";

World makeWorld(std::uint64_t seed);

/// The index of the first certificate with the label; nobody's when there is none.
int find(const World& world, const char* label);

}  // namespace Velantrix::Test::Truth
