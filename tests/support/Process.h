// A command that runs in the background: a server of a test.
//
//   BackgroundProcess server({"openssl", "ocsp", "-port", "0", ...});
//   const std::string line = server.waitForLine("ACCEPT ");
//   ... EXPECT_TRUE(server.running()) << server.output();
//   EXPECT_EQ(server.stop(), 128 + SIGTERM);
//
// No process outlives its object, whatever becomes of the test: the destructor ends the process
// group, and the kernel kills the process when the thread that made the object ends
// (PR_SET_PDEATHSIG), also when that is because the test crashed or was killed. So make it in a
// thread that lives as long as the object does.
#pragma once

#include "support/ChildProcess.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace Velantrix::Test {

class BackgroundProcess {
 public:
  /// Runs `argv` (no shell; argv[0] is looked up in PATH) in a process group of its own, with
  /// nothing to read. Throws std::runtime_error when it cannot be started.
  explicit BackgroundProcess(const std::vector<std::string>& argv);
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  pid_t pid() const { return pid_; }

  /// False once the process has ended, by itself or because of stop().
  bool running() const;

  /// What it has written until now, standard output and standard error in the order of writing.
  std::string output() const;

  /// Waits until `enough(output)` holds; false when the process ended or the limit passed before.
  bool waitForOutput(const std::function<bool(const std::string&)>& enough,
                     std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

  /// Waits for a whole line that contains `text` and returns it without its end. Throws
  /// std::runtime_error with the output when the process ended or the limit passed before.
  std::string waitForLine(std::string_view text,
                          std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

  /// Ends the process group: SIGTERM, and SIGKILL when the process still runs after `patience`.
  /// The exit status, or 128 and the number of the signal; the same again when called again.
  int stop(std::chrono::milliseconds patience = std::chrono::seconds(5));

 private:
  void readOutput(const Descriptor& pipe);

  pid_t pid_ = -1;
  Descriptor handle_;
  int status_ = -1;  ///< set by stop()

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string output_;  ///< guarded by mutex_, as is ended_
  bool ended_ = false;  ///< all output is there
  std::thread reader_;  ///< last: it uses all the others
};

}  // namespace Velantrix::Test
