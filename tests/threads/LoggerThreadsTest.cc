// The process-wide logger: it may be exchanged while other threads log.
#include "foundation/base/Log.h"
#include "threads/Threads.h"

#include <velantrix/Logger.h>

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

class Counter : public Logger {
 public:
  std::atomic<int> lines = 0;

 protected:
  void line(int priority, const std::string& text) override {
    if (priority == 6 && text == "a line") ++lines;
  }
};

TEST(LoggerThreads, LinesOfAllThreads_ArriveWhole) {
  Counter counter;
  Logger* const before = Logger::install(&counter);
  onThreads(4, [](int) {
    for (int i = 0; i < 500; ++i) log(6, "a line");
  });
  Logger::install(before);
  EXPECT_EQ(counter.lines, 2000);
}

// A logger is whole before anybody is handed it.
TEST(LoggerThreads, MadeAndInstalledWhileOthersLog_EachLineGoesToOneOfThem) {
  Counter first;
  std::vector<std::unique_ptr<Counter>> later;
  Logger* const before = Logger::install(&first);
  onThreads(4, [&](int thread) {
    for (int i = 0; i < 500; ++i) {
      if (thread == 0) {
        later.push_back(std::make_unique<Counter>());
        Logger::install(later.back().get());
      } else {
        log(6, "a line");
      }
    }
  });
  Logger::install(before);
  int lines = first.lines;
  for (const auto& counter : later) lines += counter->lines;
  EXPECT_EQ(lines, 1500);
}

}  // namespace
}  // namespace Velantrix::Test
