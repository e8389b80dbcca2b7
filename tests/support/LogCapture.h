// Collects what the library logs while the object lives.
//
//   LogCapture log;
//   verifier.isValid();
//   EXPECT_TRUE(log.contains("is not valid")) << log.text();
//
// Captures nest: the inner one gets the lines, and the outer one is installed again afterwards.
// Lines may come from several threads at once; a capture is made and destroyed by one of them.
#pragma once

#include <velantrix/Logger.h>

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

class LogCapture : public Logger {
 public:
  /// One call of the formatted write.
  struct Line {
    unsigned int category;
    unsigned int flags;
    std::string format;
    std::string raw;  ///< formatted, as it was written
    int priority;     ///< the number before the byte 0x01, -1 when the line has another shape
    std::string text;
  };

  LogCapture() : previous_(Logger::install(this)) {}
  ~LogCapture() override { Logger::install(previous_); }

  std::vector<Line> lines() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (const Line& line : lines()) texts.push_back(line.text);
    return texts;
  }
  /// "priority text", a line each, to be shown when a test fails.
  std::string text() const {
    std::string all;
    for (const Line& line : lines()) {
      all += std::to_string(line.priority) + ' ' + line.text + '\n';
    }
    return all;
  }
  std::size_t count(std::string_view part) const {
    const std::vector<Line> all = lines();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [part](const Line& line) {
      return line.text.find(part) != std::string::npos;
    }));
  }
  bool contains(std::string_view part) const { return count(part) != 0; }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

  void write(unsigned int category, unsigned int flags, const char* format, ...) override
      __attribute__((format(printf, 4, 5))) {
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string raw(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
    std::vsnprintf(raw.data(), raw.size(), format, again);
    va_end(again);
    va_end(arguments);
    raw.pop_back();

    Line line{category, flags, format, raw, -1, raw};
    const std::size_t mark = raw.find('\x01');
    if (mark != std::string::npos) {
      const char* const last = raw.data() + mark;
      const auto [end, error] = std::from_chars(raw.data(), last, line.priority);
      if (error == std::errc() && end == last) line.text = raw.substr(mark + 1);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  Logger* previous_;
};

}  // namespace Velantrix::Test
