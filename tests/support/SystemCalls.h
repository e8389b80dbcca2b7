// Which calls of the kernel a step makes, in a child process of its own.
//
//   EXPECT_LE(systemCallsOf([&] { verify(); }).size(), 12U);
//
// The child starts with what its parent holds, so what the parent has done before is not done again.
#pragma once

#include <functional>
#include <vector>

namespace Velantrix::Test {

/// Their numbers (SYS_openat and others), in the order in which the step makes them. What it starts in other
/// threads is not watched, nor what needs no kernel, as most clocks.
/// @throws std::runtime_error when the step throws or ends the process, and where a process may not watch
///         its child
std::vector<long> systemCallsOf(const std::function<void()>& step);

}  // namespace Velantrix::Test
