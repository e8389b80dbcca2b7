// What is done with a child process after it was started.
//
//   const Descriptor handle = openProcess(child);
//   if (!waitForEnd(handle, limit)) kill(child, SIGKILL);
//   const int status = collect(child);
//
#pragma once

#include "support/Descriptor.h"

#include <chrono>
#include <sys/types.h>

namespace Velantrix::Test {

/// A descriptor that becomes readable when the process ends.
Descriptor openProcess(pid_t process);

/// False when the process has not ended within the limit. It is not collected.
bool waitForEnd(const Descriptor& process, std::chrono::milliseconds limit);

/// Waits for the end of a child and releases its number: the exit status, or 128 and the number of
/// the signal that ended it.
int collect(pid_t child);

}  // namespace Velantrix::Test
