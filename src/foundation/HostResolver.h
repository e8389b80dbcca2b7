// Asks for the address of a host by its name, with a deadline.
#pragma once

#include <chrono>
#include <string>

namespace Velantrix {

/// Bounds one resolution.
inline constexpr std::chrono::seconds kResolveTime{5};

/// The first address of the host in numeric form; empty when it has none, when the name is none,
/// and when no answer came in time.
std::string resolveHost(const std::string& name);

}  // namespace Velantrix
