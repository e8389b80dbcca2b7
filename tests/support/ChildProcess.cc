#include "support/ChildProcess.h"

#include <cerrno>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace Velantrix::Test {

Descriptor openProcess(pid_t process) {
  // Not <sys/pidfd.h>: in glibc 2.36 it cannot be used from C++.
  return Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)), "pidfd_open");
}

bool waitForEnd(const Descriptor& process, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ended{process.number(), POLLIN, 0};
    const int count = poll(&ended, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (count > 0) return true;
    if (count == 0) return false;
    if (errno != EINTR) failWithError("poll", errno);
  }
}

int collect(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) failWithError("waitpid", errno);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace Velantrix::Test
