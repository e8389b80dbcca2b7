// What a child process says: one that is forked here and goes on as this program.
#pragma once

#include "support/ChildProcess.h"

#include <stdexcept>
#include <sys/types.h>
#include <unistd.h>

namespace Velantrix::Test {

/// Forks a child that does the work, and ends with 0 when that is true. To be collected.
template <typename Work>
pid_t forkChild(Work work) {
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) ::_exit(work() ? 0 : 1);
  return child;
}

/// Whether it is true in a child.
template <typename Work>
bool holdsInChild(Work work) {
  return collect(forkChild(work)) == 0;
}

}  // namespace Velantrix::Test
