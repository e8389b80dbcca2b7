#include "support/Command.h"

#include "support/ChildProcess.h"
#include "support/Descriptor.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

/// The command's standard streams are files in memory: it never waits for a reader, and a process
/// that it leaves behind keeps nobody waiting for an end of file.
class MemoryFile : public Descriptor {
 public:
  explicit MemoryFile(const char* name)
      : Descriptor(memfd_create(name, MFD_CLOEXEC), "memfd_create") {}

  void fill(std::string_view content) const {
    while (!content.empty()) {
      const ssize_t count = write(number(), content.data(), content.size());
      if (count < 0) failWithError("write", errno);
      content.remove_prefix(static_cast<std::size_t>(count));
    }
    if (lseek(number(), 0, SEEK_SET) < 0) failWithError("lseek", errno);
  }

  std::string content() const {
    std::string all;
    std::array<char, 65536> block{};
    for (;;) {
      const ssize_t count =
          pread(number(), block.data(), block.size(), static_cast<off_t>(all.size()));
      if (count < 0) failWithError("pread", errno);
      if (count == 0) return all;
      all.append(block.data(), static_cast<std::size_t>(count));
    }
  }
};

class SpawnActions {
 public:
  SpawnActions() {
    if (const int error = posix_spawn_file_actions_init(&actions_)) {
      failWithError("posix_spawn", error);
    }
  }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  void duplicate(const Descriptor& from, int to) {
    if (const int error = posix_spawn_file_actions_adddup2(&actions_, from.number(), to)) {
      failWithError("posix_spawn", error);
    }
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

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
    failWithError(argv.front(), error);
  }
  const bool ended = waitForEnd(openProcess(child), limit);
  if (!ended) kill(child, SIGKILL);
  const int status = collect(child);
  if (!ended) throw std::runtime_error("not ended in time: " + argv.front());
  return {status, out.content(), err.content()};
}

}  // namespace Velantrix::Test
