#include "foundation/base/Log.h"

#include <velantrix/Logger.h>

#include <cerrno>
#include <cstdarg>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::Logger;

struct Written {
  unsigned int category;
  unsigned int flags;
  std::string format;
  int priority;
  std::string text;
};

// Takes the formatted write itself, as a program with a logger of its own may.
class Recorder : public Logger {
 public:
  Recorder() : former_(Logger::install(this)) {}
  ~Recorder() override { Logger::install(former_); }

  void write(unsigned int category, unsigned int flags, const char* format, ...) override
      __attribute__((format(printf, 4, 5))) {
    std::va_list arguments;
    va_start(arguments, format);
    const int priority = va_arg(arguments, int);
    const char* const text = va_arg(arguments, const char*);
    va_end(arguments);
    written.push_back({category, flags, format, priority, text});
  }

  std::vector<Written> written;

 private:
  Logger* former_;
};

class Thrower : public Logger {
 public:
  Thrower() : former_(Logger::install(this)) {}
  ~Thrower() override { Logger::install(former_); }
  void write(unsigned int, unsigned int, const char*, ...) override
      __attribute__((format(printf, 4, 5))) {
    ++calls;
    errno = EIO;
    throw std::runtime_error("no room");
  }
  int calls = 0;

 private:
  Logger* former_;
};

TEST(Log, Log_Line_IsWrittenWithCategoryFormatPriorityAndText) {
  Recorder recorder;
  Velantrix::log(Velantrix::kPriorityInfo, "something happened");
  Velantrix::log(Velantrix::kPriorityDebug, "100% \u00e4");
  ASSERT_EQ(recorder.written.size(), 2U);
  EXPECT_EQ(recorder.written[0].category, 0x4000000U);
  EXPECT_EQ(recorder.written[0].flags, 0U);
  EXPECT_EQ(recorder.written[0].format, "%d\x01%s");
  EXPECT_EQ(recorder.written[0].priority, 6);
  EXPECT_EQ(recorder.written[0].text, "something happened");
  EXPECT_EQ(recorder.written[1].priority, 7);
  EXPECT_EQ(recorder.written[1].text, "100% \u00e4");
}

TEST(Log, Log_ControlCharactersInText_CannotForgeALine) {
  Recorder recorder;
  Velantrix::log(7, "a\nb\x01\0c\x7f"s);
  ASSERT_EQ(recorder.written.size(), 1U);
  EXPECT_EQ(recorder.written[0].text, "a\\0Ab\\01\\00c\\7F");
}

TEST(Log, Log_LongText_IsCutAtEightKilobytesBetweenCharacters) {
  Recorder recorder;
  Velantrix::log(7, std::string(8191, 'a') + "\u00e4");
  Velantrix::log(7, std::string(10000000, 'b'));
  ASSERT_EQ(recorder.written.size(), 2U);
  EXPECT_EQ(recorder.written[0].text, std::string(8191, 'a'));
  EXPECT_EQ(recorder.written[1].text, std::string(8192, 'b'));
}

TEST(Log, Log_LoggerThrows_CallerNoticesNothing) {
  Thrower thrower;
  errno = ENOENT;
  Velantrix::log(7, "text");
  Velantrix::logMisplaced("text");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(thrower.calls, 2);
}

TEST(Log, LogMisplaced_AnyText_IsNumberZeroAndEmptyText) {
  Recorder recorder;
  Velantrix::logMisplaced("a text that stands in the place of the priority");
  ASSERT_EQ(recorder.written.size(), 1U);
  EXPECT_EQ(recorder.written[0].category, 0x4000000U);
  EXPECT_EQ(recorder.written[0].flags, 0U);
  EXPECT_EQ(recorder.written[0].format, "%d\x01%s");
  EXPECT_EQ(recorder.written[0].priority, 0);
  EXPECT_EQ(recorder.written[0].text, "");
}

}  // namespace
