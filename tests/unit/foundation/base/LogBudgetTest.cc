#include "foundation/base/Log.h"
#include "foundation/base/LogBudget.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace Velantrix::Test {
namespace {

constexpr char kTooMany[] =
    "6 Verifier: too many lines, further ones of this verification are left out\n";

void logLines(int count) {
  for (int i = 0; i < count; ++i) log(kPriorityDebug, "line");
}

TEST(LogBudget, NoBudget_EveryLineIsWritten) {
  const LogCapture capture;
  logLines(1000);
  EXPECT_EQ(capture.lines().size(), 1000U);
}

TEST(LogBudget, JustUsedUp_NothingIsLeftOutAndNothingIsSaid) {
  const LogCapture capture;
  {
    const LogBudget budget(2);
    logLines(2);
  }
  EXPECT_EQ(capture.text(), "7 line\n7 line\n");
}

TEST(LogBudget, MoreLines_AreLeftOutAndCounted) {
  const LogCapture capture;
  {
    const LogBudget budget(2);
    logLines(1);
    logMisplaced("line");
    logMisplaced("line");
    logLines(3);
    EXPECT_EQ(capture.text(), std::string("7 line\n0 \n") + kTooMany);
  }
  EXPECT_EQ(capture.text(), std::string("7 line\n0 \n") + kTooMany +
                                "6 Verifier: 4 lines of this verification are left out\n");
}

TEST(LogBudget, WhatIsAlwaysLogged_IsNeitherLeftOutNorCounted) {
  const LogCapture capture;
  {
    const LogBudget budget(1);
    logAlways(kPriorityDebug, "first");
    logLines(2);
    logAlways(kPriorityDebug, "last");
  }
  EXPECT_EQ(capture.text(), std::string("7 first\n7 line\n") + kTooMany +
                                "7 last\n6 Verifier: 1 lines of this verification are left out\n");
}

TEST(LogBudget, Destroyed_TheOneAroundItHoldsAgain) {
  const LogCapture capture;
  const LogBudget outer(1);
  {
    const LogBudget inner(2);
    logLines(2);
  }
  logLines(2);
  EXPECT_EQ(capture.text(), std::string("7 line\n7 line\n7 line\n") + kTooMany);
}

TEST(LogBudget, OtherThread_WritesWhatItLikes) {
  const LogCapture capture;
  const LogBudget budget(0);
  std::thread([] { logLines(3); }).join();
  EXPECT_EQ(capture.lines().size(), 3U);
}

}  // namespace
}  // namespace Velantrix::Test
