#include "support/Command.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

[[noreturn]] void fail(const std::string& what, int error) {
  throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
 public:
  Descriptor(int number, const char* what) : number_(number) {
    if (number < 0) fail(what, errno);
  }
  ~Descriptor() { close(number_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  int number_;
};

/// The command's standard streams are files in memory: it never waits for a reader, and a process
/// that it leaves behind keeps nobody waiting for an end of file.
class MemoryFile : public Descriptor {
 public:
  explicit MemoryFile(const char* name)
      : Descriptor(memfd_create(name, MFD_CLOEXEC), "memfd_create") {}

  void fill(std::string_view content) const {
    while (!content.empty()) {
      const ssize_t count = write(number(), content.data(), content.size());
      if (count < 0) fail("write", errno);
      content.remove_prefix(static_cast<std::size_t>(count));
    }
    if (lseek(number(), 0, SEEK_SET) < 0) fail("lseek", errno);
  }

  std::string content() const {
    std::string all;
    std::array<char, 65536> block{};
    for (;;) {
      const ssize_t count =
          pread(number(), block.data(), block.size(), static_cast<off_t>(all.size()));
      if (count < 0) fail("pread", errno);
      if (count == 0) return all;
      all.append(block.data(), static_cast<std::size_t>(count));
    }
  }
};

class SpawnActions {
 public:
  SpawnActions() {
    if (const int error = posix_spawn_file_actions_init(&actions_)) fail("posix_spawn", error);
  }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  void duplicate(const Descriptor& from, int to) {
    if (const int error = posix_spawn_file_actions_adddup2(&actions_, from.number(), to)) {
      fail("posix_spawn", error);
    }
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

/// Waits for the end of a child; false when it was not reached within the limit.
bool waitForEnd(pid_t child, std::chrono::milliseconds limit) {
  // Not <sys/pidfd.h>: in glibc 2.36 it cannot be used from C++.
  const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)), "pidfd_open");
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ended{handle.number(), POLLIN, 0};
    const int count = poll(&ended, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (count > 0) return true;
    if (count == 0) return false;
    if (errno != EINTR) fail("poll", errno);
  }
}

int collect(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) fail("waitpid", errno);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv, std::string_view input,
                         std::chrono::milliseconds limit) {
  if (argv.empty()) throw std::runtime_error("runCommand: no command");
  const MemoryFile in("stdin");
  const MemoryFile out("stdout");
  const MemoryFile err("stderr");
  in.fill(input);
  SpawnActions actions;
  actions.duplicate(in, STDIN_FILENO);
  actions.duplicate(out, STDOUT_FILENO);
  actions.duplicate(err, STDERR_FILENO);

  std::vector<std::string> copies = argv;
  std::vector<char*> arguments;
  for (std::string& argument : copies) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  if (const int error = posix_spawnp(&child, arguments.front(), actions.get(), nullptr,
                                     arguments.data(), environ)) {
    fail(argv.front(), error);
  }
  const bool ended = waitForEnd(child, limit);
  if (!ended) kill(child, SIGKILL);
  const int status = collect(child);
  if (!ended) throw std::runtime_error("not ended in time: " + argv.front());
  return {status, out.content(), err.content()};
}

}  // namespace Velantrix::Test
