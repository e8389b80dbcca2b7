#include <velantrix/Logger.h>

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

namespace {

std::vector<std::pair<int, std::string>>& systemLog() {
  static std::vector<std::pair<int, std::string>> lines;
  return lines;
}

void record(int priority, const char* format, std::va_list arguments) {
  char text[64 * 1024];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::vsnprintf(text, sizeof text, format, arguments);
#pragma GCC diagnostic pop
  systemLog().emplace_back(priority, text);
}

}  // namespace

// Stand in for the C library's, so that the test sees what would go to the system's log. The second
// is what a fortified build calls.
extern "C" void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int flag, const char* format, ...);
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

namespace {

using Velantrix::Logger;

class Lines : public Logger {
 public:
  std::vector<std::pair<int, std::string>> lines;

 protected:
  void line(int priority, const std::string& text) override { lines.emplace_back(priority, text); }
};

constexpr unsigned int kCategory = 0x4000000;
using Line = std::pair<int, std::string>;

TEST(Logger, Instance_NothingInstalled_IsTheSameDefaultForBothArguments) {
  EXPECT_EQ(&Logger::instance(false), &Logger::instance(false));
  EXPECT_EQ(&Logger::instance(false), &Logger::instance(true));
}

TEST(Logger, Install_Exchange_ReturnsTheFormerAndNullBringsTheDefaultBack) {
  Logger& standard = Logger::instance(false);
  Lines first;
  Lines second;
  EXPECT_EQ(Logger::install(&first), nullptr);
  EXPECT_EQ(&Logger::instance(false), &first);
  EXPECT_EQ(Logger::install(&second), &first);
  EXPECT_EQ(&Logger::instance(false), &second);
  EXPECT_EQ(Logger::install(nullptr), &second);
  EXPECT_EQ(&Logger::instance(false), &standard);
}

TEST(Logger, Write_Default_GoesToTheSystemsMailLogWithThePriorityGiven) {
  systemLog().clear();
  Logger::instance(false).write(kCategory, 0, "%d\001%s", 6, "told %s");
  Logger::instance(false).write(kCategory, 0, "%d\001%s", 7, "whispered");
  ASSERT_EQ(systemLog().size(), 2U);
  EXPECT_EQ(systemLog()[0], Line(LOG_MAIL | LOG_INFO, "told %s"));
  EXPECT_EQ(systemLog()[1], Line(LOG_MAIL | LOG_DEBUG, "whispered"));
}

TEST(Logger, Write_DefaultWithoutText_IsNoEmergency) {
  systemLog().clear();
  Logger::instance(false).write(kCategory, 0, "%d\001%s", 0, "");
  Logger::instance(false).write(kCategory, 0, "%d\001%s", 0, "a real one");
  ASSERT_EQ(systemLog().size(), 2U);
  EXPECT_EQ(systemLog()[0], Line(LOG_MAIL | LOG_DEBUG, ""));
  EXPECT_EQ(systemLog()[1], Line(LOG_MAIL | LOG_EMERG, "a real one"));
}

TEST(Logger, Write_PriorityAndText_AreTakenApartAtTheByteBetween) {
  Lines logger;
  logger.write(kCategory, 0, "%d\001%s", 3, "text");
  logger.write(kCategory, 0, "%d\001%s", 0, "");
  logger.write(kCategory, 0, "%d\001%s", 7, "one\001two");
  EXPECT_EQ(logger.lines, (std::vector<Line>{{3, "text"}, {0, ""}, {7, "one\001two"}}));
}

TEST(Logger, Write_NoPriority_IsATextOfPriorityInfo) {
  Lines logger;
  logger.write(kCategory, 0, "%s", "plain");
  logger.write(kCategory, 0, "%d\001%s", 8, "too high");
  logger.write(kCategory, 0, "%d\001%s", -1, "too low");
  logger.write(kCategory, 0, "%s\001%s", "7x", "no number");
  EXPECT_EQ(logger.lines,
            (std::vector<Line>{
                {6, "plain"}, {6, "8\001too high"}, {6, "-1\001too low"}, {6, "7x\001no number"}}));
}

TEST(Logger, Write_LongText_IsCutAtEightKilobytesBetweenCharacters) {
  Lines logger;
  const std::string exact(8192, 'a');
  const std::string split = std::string(8191, 'b') + "\u00e4";
  const std::string huge(100000, 'c');
  for (const std::string& text : {exact, split, huge}) {
    logger.write(kCategory, 0, "%d\001%s", 6, text.c_str());
  }
  ASSERT_EQ(logger.lines.size(), 3U);
  EXPECT_EQ(logger.lines[0].second, exact);
  EXPECT_EQ(logger.lines[1].second, std::string(8191, 'b'));
  EXPECT_EQ(logger.lines[2].second, std::string(8192, 'c'));
}

}  // namespace
