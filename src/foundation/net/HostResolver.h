// Asks for the address of a host by its name, with a deadline.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Velantrix {

/// Bounds one resolution.
inline constexpr std::chrono::seconds kResolveTime{5};

/// The addresses of the host in numeric form, those first that are to be tried first, and no more
/// than sixteen; a numeric address is its own. None when the host has none, when the name is none,
/// and when no answer came in time.
std::vector<std::string> resolveHost(const std::string& name);

}  // namespace Velantrix
