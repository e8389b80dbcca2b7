#include "support/SystemCalls.h"

#include "support/Descriptor.h"

#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

// Stands before the step and behind it. Nobody else makes that call.
constexpr long kMark = SYS_getppid;
constexpr int kThrown = 3;
constexpr int kStopOfCall = SIGTRAP | 0x80;  // with PTRACE_O_TRACESYSGOOD

[[noreturn]] void runWatched(const std::function<void()>& step) noexcept {
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(errno);
  static_cast<void>(raise(SIGSTOP));
  int status = 0;
  syscall(kMark);
  try {
    step();
  } catch (...) {
    status = kThrown;
  }
  syscall(kMark);
  _exit(status);
}

class WatchedChild {
 public:
  explicit WatchedChild(const std::function<void()>& step) : pid_(fork()) {
    if (pid_ < 0) failWithError("fork", errno);
    if (pid_ == 0) runWatched(step);
    waitForStop();
    if (!ended_ &&
        ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
      failWithError("ptrace", errno);
    }
  }
  ~WatchedChild() {
    if (ended_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  WatchedChild(const WatchedChild&) = delete;
  WatchedChild& operator=(const WatchedChild&) = delete;

  // The number of the next call; nothing when there is none.
  std::optional<long> nextCall() {
    int signal = 0;
    while (!ended_) {
      if (ptrace(PTRACE_SYSCALL, pid_, nullptr, signal) != 0) failWithError("ptrace", errno);
      waitForStop();
      if (ended_) break;
      signal = WSTOPSIG(status_) == kStopOfCall ? 0 : WSTOPSIG(status_);
      if (signal != 0) continue;
      __ptrace_syscall_info call{};
      if (ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof call, &call) < 0) {
        failWithError("ptrace", errno);
      }
      if (call.op == PTRACE_SYSCALL_INFO_ENTRY) return static_cast<long>(call.entry.nr);
    }
    return std::nullopt;
  }

  bool isDone() const noexcept { return ended_ && WIFEXITED(status_) && WEXITSTATUS(status_) == 0; }
  int status() const noexcept { return status_; }

 private:
  void waitForStop() {
    while (waitpid(pid_, &status_, 0) < 0) {
      if (errno != EINTR) failWithError("waitpid", errno);
    }
    ended_ = !WIFSTOPPED(status_);
  }

  pid_t pid_;
  int status_ = 0;
  bool ended_ = false;
};

}  // namespace

std::vector<long> systemCallsOf(const std::function<void()>& step) {
  WatchedChild child(step);
  std::vector<long> calls;
  int marks = 0;
  while (const std::optional<long> call = child.nextCall()) {
    if (*call == kMark) {
      ++marks;
    } else if (marks == 1) {
      calls.push_back(*call);
    }
  }
  if (!child.isDone() || marks != 2) {
    throw std::runtime_error("step ended with status " + std::to_string(child.status()));
  }
  return calls;
}

}  // namespace Velantrix::Test
