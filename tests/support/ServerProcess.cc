#include "support/ServerProcess.h"

namespace Velantrix::Test {

void ServerProcess::start() {
  if (process_) return;
  auto process = std::make_unique<BackgroundProcess>(argv_);
  process->waitForLine(ready_);
  process_ = std::move(process);
}

void ServerProcess::stop() {
  if (!process_) return;
  process_->stop();
  earlier_ += process_->output();
  process_.reset();
}

std::string ServerProcess::output() const {
  return process_ ? earlier_ + process_->output() : earlier_;
}

bool ServerProcess::waitForOutput(const std::function<bool(const std::string&)>& enough,
                                  std::chrono::milliseconds limit) const {
  if (!process_) return enough(earlier_);
  return process_->waitForOutput(
      [&](const std::string& output) { return enough(earlier_ + output); }, limit);
}

}  // namespace Velantrix::Test
