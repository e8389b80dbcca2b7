#include "foundation/base/DirectoryLock.h"
#include "support/Descriptor.h"
#include "support/Files.h"
#include "support/Stopwatch.h"

#include <velantrix/Exception.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

TEST(DirectoryLock, OneHolder_KeepsTheOthersWaitingAndNoLonger) {
  const TempDir directory;
  {
    const DirectoryLock first(directory.string(), 0ms);
    EXPECT_TRUE(first.held());
    const Stopwatch watch;
    const DirectoryLock second(directory.string(), 50ms);
    EXPECT_FALSE(second.held());
    EXPECT_GE(watch.elapsed(), 50ms);
    EXPECT_LT(watch.elapsed(), 5s);
    EXPECT_FALSE(
        DirectoryLock(directory.string(), 0ms).held());  // who did not get it, frees nothing
    EXPECT_TRUE(DirectoryLock(TempDir().string(), 0ms).held());
  }
  EXPECT_TRUE(DirectoryLock(directory.string(), 0ms).held());
}

TEST(DirectoryLock, FreedWhileSomebodyWaits_IsTheirs) {
  const TempDir directory;
  const Descriptor other(::open(directory.path().c_str(), O_RDONLY | O_CLOEXEC), "open");
  ASSERT_EQ(::flock(other.number(), LOCK_EX), 0);
  std::thread waiting([&] { EXPECT_TRUE(DirectoryLock(directory.string(), 60s).held()); });
  ASSERT_EQ(::flock(other.number(), LOCK_UN), 0);
  waiting.join();
}

TEST(DirectoryLock, NoSenseInWaiting_IsNotHeldAndSaysSoAtOnce) {
  const TempDir directory;
  const DirectoryLock::GiveUp always = []() noexcept { return true; };
  const DirectoryLock first(directory.string(), 60s, always);
  EXPECT_TRUE(first.held()) << "there is nothing to wait for";
  const Stopwatch watch;
  EXPECT_FALSE(DirectoryLock(directory.string(), 60s, always).held());
  EXPECT_LT(watch.elapsed(), 5s);
}

TEST(DirectoryLock, ChildThatWasForkedMeanwhile_DoesNotKeepIt) {
  const TempDir directory;
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  pid_t child = -1;
  {
    const DirectoryLock lock(directory.string(), 0ms);
    child = ::fork();
    if (child == 0) {
      ::close(ends[1]);
      char byte = 0;
      static_cast<void>(!::read(ends[0], &byte, 1));  // until the parent closes its end
      ::_exit(0);
    }
  }
  EXPECT_TRUE(DirectoryLock(directory.string(), 0ms).held());
  ::close(ends[0]);
  ::close(ends[1]);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST(DirectoryLock, NoFileIsMade) {
  const TempDir directory;
  const DirectoryLock lock(directory.string(), 0ms);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST(DirectoryLock, WhatIsNoDirectory_IsAnExceptionThatNamesIt) {
  const TempDir directory;
  writeFile(directory / "file", "");
  for (const char* const name : {"file", "missing"}) {
    const std::string path = (directory / name).string();
    try {
      const DirectoryLock lock(path, 0ms);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& e) {
      EXPECT_NE(e.asString().find(path), std::string::npos) << e.asString();
    }
  }
}

}  // namespace
}  // namespace Velantrix::Test
