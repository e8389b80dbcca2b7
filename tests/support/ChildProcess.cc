#include "support/ChildProcess.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

// For a child, what pidfd_open gives: a thread waits for its end and says so through a pipe.
Descriptor openChildByThread(pid_t child) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) failWithError("pipe2", errno);
  Descriptor reader(ends[0], "pipe2");
  std::thread([child, writer = ends[1]] {
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) < 0 &&
           errno == EINTR) {
    }
    // A byte, and not the pipe's end: a child that was forked meanwhile keeps it open.
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = write(writer, &byte, sizeof byte);
    close(writer);
  }).detach();
  return reader;
}

}  // namespace

Descriptor openProcess(pid_t process) {
  // Not <sys/pidfd.h>: in glibc 2.36 it cannot be used from C++.
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  // Debian 12's valgrind does not know the call.
  if (handle < 0 && errno == ENOSYS) return openChildByThread(process);
  return Descriptor(handle, "pidfd_open");
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
