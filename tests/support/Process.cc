#include "support/Process.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/types.h>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

struct Pipe {
  Descriptor read;
  Descriptor write;
};

Pipe makePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) failWithError("pipe2", errno);
  return {Descriptor(ends[0], "pipe2"), Descriptor(ends[1], "pipe2")};
}

/// Between fork and exec in a process that may have threads: only what signal handlers may call.
[[noreturn]] void becomeCommand(char* const* argv, pid_t parent, int output, int errors) {
  sigset_t none{};
  sigemptyset(&none);
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (input >= 0 && dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
      dup2(output, STDERR_FILENO) >= 0 && setpgid(0, 0) == 0 &&
      sigprocmask(SIG_SETMASK, &none, nullptr) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0) {
    // The parent may have ended before the kernel was told to look.
    if (getppid() != parent) _exit(127);
    execvp(argv[0], argv);
  }
  const int error = errno;
  if (write(errors, &error, sizeof error) < 0) _exit(126);
  _exit(127);
}

/// By fork, since posix_spawn cannot ask for the signal at the parent's death.
pid_t start(const std::vector<std::string>& argv, const Descriptor& output) {
  if (argv.empty()) throw std::runtime_error("BackgroundProcess: no command");
  std::vector<std::string> copies = argv;
  std::vector<char*> arguments;
  for (std::string& argument : copies) arguments.push_back(argument.data());
  arguments.push_back(nullptr);

  Pipe errors = makePipe();
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) failWithError("fork", errno);
  if (child == 0) {
    becomeCommand(arguments.data(), parent, output.number(), errors.write.number());
  }
  errors.write.reset();
  int error = 0;
  ssize_t count = 0;
  do {
    count = read(errors.read.number(), &error, sizeof error);
  } while (count < 0 && errno == EINTR);
  if (count == 0) return child;  // exec closed the pipe
  collect(child);
  failWithError(argv.front(), count > 0 ? error : EIO);
}

}  // namespace

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv) {
  Pipe output = makePipe();
  if (fcntl(output.read.number(), F_SETFL, O_NONBLOCK) != 0) failWithError("fcntl", errno);
  pid_ = start(argv, output.write);
  try {
    handle_ = openProcess(pid_);
    reader_ = std::thread([this, pipe = std::move(output.read)] { readOutput(pipe); });
  } catch (...) {
    kill(-pid_, SIGKILL);
    collect(pid_);
    throw;
  }
}

BackgroundProcess::~BackgroundProcess() { stop(); }

bool BackgroundProcess::running() const {
  return !waitForEnd(handle_, std::chrono::milliseconds(0));
}

std::string BackgroundProcess::output() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return output_;
}

bool BackgroundProcess::waitForOutput(const std::function<bool(const std::string&)>& enough,
                                      std::chrono::milliseconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (enough(output_)) return true;
    if (ended_) return false;
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) return enough(output_);
  }
}

std::string BackgroundProcess::waitForLine(std::string_view text,
                                           std::chrono::milliseconds limit) const {
  std::string line;
  const auto lineIsThere = [&](const std::string& output) {
    const std::size_t found = output.find(text);
    if (found == std::string::npos) return false;
    const std::size_t end = output.find('\n', found);
    if (end == std::string::npos) return false;
    const std::size_t begin = output.rfind('\n', found);
    line = begin == std::string::npos ? output.substr(0, end)
                                      : output.substr(begin + 1, end - begin - 1);
    return true;
  };
  if (!waitForOutput(lineIsThere, limit)) {
    throw std::runtime_error(
        std::string(running() ? "not written in time: " : "ended without: ").append(text) + "\n" +
        output());
  }
  return line;
}

int BackgroundProcess::stop(std::chrono::milliseconds patience) {
  if (!reader_.joinable()) return status_;
  kill(-pid_, SIGTERM);
  waitForEnd(handle_, patience);
  // Also those of the group that the process left behind; the number is its own until collected.
  kill(-pid_, SIGKILL);
  reader_.join();
  status_ = collect(pid_);
  return status_;
}

void BackgroundProcess::readOutput(const Descriptor& pipe) {
  // As large as a pipe: one read takes all that was there when the process ended. Others that still
  // hold the pipe open, children of the process for example, are not waited for.
  std::vector<char> block(65536);
  std::array<pollfd, 2> wait = {{{pipe.number(), POLLIN, 0}, {handle_.number(), POLLIN, 0}}};
  for (bool ended = false; !ended;) {
    if (poll(wait.data(), wait.size(), -1) < 0 && errno == EINTR) continue;
    ended = wait[1].revents != 0;
    const ssize_t count = read(pipe.number(), block.data(), block.size());
    if (count == 0) wait[0].fd = -1;  // the process closed its outputs and runs on
    const std::lock_guard<std::mutex> lock(mutex_);
    if (count > 0) output_.append(block.data(), static_cast<std::size_t>(count));
    ended_ = ended;
    changed_.notify_all();
  }
}

}  // namespace Velantrix::Test
