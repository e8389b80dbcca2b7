// Keeps the library's log lines for the report.
#pragma once

#include "Report.h"

#include <velantrix/Logger.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

/// The process-wide logger for as long as it lives. Lines may come from any
/// thread.
class LogCollector : public Logger {
 public:
  LogCollector() : former_(Logger::install(this)) {}
  ~LogCollector() override { Logger::install(former_); }

  /// The lines since the last call.
  std::vector<Report::LogLine> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 protected:
  void line(int priority, const std::string& text) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back({priority, text});
  }

 private:
  Logger* former_;  // borrowed
  std::mutex mutex_;
  std::vector<Report::LogLine> lines_;
};

}  // namespace Velantrix::Tool
