#include "Progress.h"

#include "StandardStreams.h"
#include "Terminal.h"

#include <chrono>
#include <utility>

namespace Velantrix::Tool {

namespace {

constexpr std::chrono::milliseconds kPatience(500);

}  // namespace

Progress::Progress(std::size_t total, std::string what) : total_(total), what_(std::move(what)) {
  if (total > 1 && errorIsTerminal()) {
    timer_ = std::jthread([this](const std::stop_token& stop) { wait(stop); });
  }
}

void Progress::begin() {
  const std::lock_guard lock(mutex_);
  ++current_;
  working_ = true;
  if (due_) draw();
}

void Progress::end() {
  const std::lock_guard lock(mutex_);
  working_ = false;
  if (shown_.empty()) return;
  // Blanks rather than an escape sequence, which not every terminal knows.
  writeErrorRaw('\r' + std::string(shown_.size(), ' ') + '\r');
  shown_.clear();
}

void Progress::wait(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  stopped_.wait_for(lock, stop, kPatience, [] { return false; });
  if (stop.stop_requested()) return;
  due_ = true;
  if (working_) draw();
}

void Progress::draw() {
  shown_ = what_ + ' ' + std::to_string(current_) + " of " + std::to_string(total_);
  writeErrorRaw('\r' + shown_);
}

}  // namespace Velantrix::Tool
