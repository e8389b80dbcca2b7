// Keeps the library's log lines for the report.
#pragma once

#include "Report.h"

#include <velantrix/Logger.h>

#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

/// The process-wide logger for as long as it lives. The tool verifies on one thread.
class LogCollector : public Logger {
 public:
  LogCollector() : former_(Logger::install(this)) {}
  ~LogCollector() override { Logger::install(former_); }

  /// The lines since the last call.
  std::vector<Report::LogLine> take() { return std::exchange(lines_, {}); }

 protected:
  void line(int priority, const std::string& text) override { lines_.push_back({priority, text}); }

 private:
  Logger* former_;  // borrowed
  std::vector<Report::LogLine> lines_;
};

}  // namespace Velantrix::Tool
