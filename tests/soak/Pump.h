// A connection in front of a server that speaks any protocol, with something wrong on its way back.
#pragma once

#include "soak/Faults.h"
#include "support/Descriptor.h"

#include <cstddef>
#include <cstdint>

namespace Velantrix::Test::Soak {

/// Carries bytes both ways until one side closes or what is wrong ends it. `at` says at which byte
/// of what the server sends that begins. Throws Peer::Stopped when `stop` becomes readable.
void pump(Descriptor client, std::uint16_t server, Fault fault, std::size_t at,
          const Descriptor& stop);

}  // namespace Velantrix::Test::Soak
