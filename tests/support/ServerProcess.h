// A server of another project that a test starts, stops and starts again.
//
//   ServerProcess server({"openssl", "ocsp", "-port", port.text(), ...}, "ACCEPT ");
//   server.start();
//   server.waitForOutput([](const std::string& output) { return ...; });
//   server.stop();
//   server.start();
//
#pragma once

#include "support/Process.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {

class ServerProcess {
 public:
  /// `ready` is part of a line that the server writes as soon as connections are accepted.
  ServerProcess(std::vector<std::string> argv, std::string ready)
      : argv_(std::move(argv)), ready_(std::move(ready)) {}

  /// Returns when the server is ready. Throws std::runtime_error with its output when it ends
  /// before. Does nothing when it was started and not stopped.
  void start();
  void stop();
  bool running() const { return process_ && process_->running(); }

  /// What it has written since it was started for the first time.
  std::string output() const;

  /// Waits until `enough(output())` holds; false when the server ended or the limit passed before.
  bool waitForOutput(const std::function<bool(const std::string&)>& enough,
                     std::chrono::milliseconds limit) const;

 private:
  std::vector<std::string> argv_;
  std::string ready_;
  std::string earlier_;  ///< output of processes that were stopped
  std::unique_ptr<BackgroundProcess> process_;
};

}  // namespace Velantrix::Test
