#include "retrieval/DeskProcess.h"
#include "support/Files.h"
#include "support/Stopwatch.h"
#include "unit/retrieval/InChild.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;
using Clock = DeskProcess::Clock;

TEST(DeskProcess, Place_IsEnteredByOneThreadAtATime) {
  std::optional<EnteredPlace> first;
  first.emplace("a", Clock::now());
  EXPECT_TRUE(first->entered());
  EXPECT_TRUE(EnteredPlace("b", Clock::now()).entered());
  EXPECT_FALSE(EnteredPlace("a", Clock::now()).entered());
  const Stopwatch watch;
  EXPECT_FALSE(EnteredPlace("a", Clock::now() + 60ms).entered());
  EXPECT_TRUE(watch.took(60ms));
  std::thread waiting([] { EXPECT_TRUE(EnteredPlace("a", Clock::now() + 60s).entered()); });
  first.reset();
  waiting.join();
}

TEST(DeskProcess, ForkedChild_IsAtNoPlace) {
  const EnteredPlace place("a", Clock::now());
  EXPECT_TRUE(
      holdsInChild([&] { return !place.entered() && EnteredPlace("a", Clock::now()).entered(); }));
  EXPECT_TRUE(place.entered());
  EXPECT_FALSE(EnteredPlace("a", Clock::now()).entered());
}

TEST(DeskProcess, ForkedChild_HasLockFilesClosedWithoutGivingThemUp) {
  const TempDir directory;
  const int at = ::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(at, 0);
  std::optional<DeskLock> lock;
  lock.emplace(at, "lock", O_CREAT | O_RDONLY | O_CLOEXEC, 0600);
  ASSERT_EQ(lock->error(), 0);
  ASSERT_EQ(lock->take(), 0);
  const auto isFree = [&] { return DeskLock(at, "lock", O_RDONLY | O_CLOEXEC, 0).take() == 0; };
  EXPECT_FALSE(isFree());
  EXPECT_TRUE(holdsInChild([&] {
    const int reused = ::dup(at);  // the number of the one that was closed
    lock.reset();
    return ::fcntl(reused, F_GETFD) >= 0 && !isFree();
  }));
  EXPECT_FALSE(isFree());
  lock.reset();
  EXPECT_TRUE(isFree());
  ::close(at);
}

// As posix_spawn() does it: no handler runs, and what is to be closed is so a moment later.
TEST(DeskProcess, ChildThatStillHasALockFile_DoesNotKeepTheLock) {
  const TempDir directory;
  const int at = ::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(at, 0);
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::optional<DeskLock> lock;
  lock.emplace(at, "lock", O_CREAT | O_RDONLY | O_CLOEXEC, 0600);
  ASSERT_EQ(lock->take(), 0);
  const pid_t child = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, 0, 0, 0));
  if (child == 0) {
    ::close(ends[1]);
    char byte = 0;
    static_cast<void>(!::read(ends[0], &byte, 1));  // until the parent closes its end
    ::_exit(0);
  }
  ASSERT_GT(child, 0);
  lock.reset();
  EXPECT_EQ(DeskLock(at, "lock", O_RDONLY | O_CLOEXEC, 0).take(), 0);
  for (const int descriptor : {at, ends[0], ends[1]}) ::close(descriptor);
  EXPECT_EQ(collect(child), 0);
}

TEST(DeskProcess, FileThatIsAnotherByNow_IsNotTheOneOfItsName) {
  const TempDir directory;
  const int at = ::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(at, 0);
  DeskLock lock(at, "lock", O_CREAT | O_RDONLY | O_CLOEXEC, 0600);
  EXPECT_TRUE(lock.isNamed(at, "lock"));
  std::filesystem::remove(directory / "lock");
  EXPECT_FALSE(lock.isNamed(at, "lock"));
  writeFile(directory / "lock", "");
  EXPECT_EQ(lock.take(), 0);
  EXPECT_FALSE(lock.isNamed(at, "lock"));
  EXPECT_EQ(DeskLock(at, "missing", O_RDONLY | O_CLOEXEC, 0).error(), ENOENT);
  ::close(at);
}

TEST(DeskProcess, Process_LooksAtTheFirstFileAndThenNowAndAgain) {
  EXPECT_TRUE(holdsInChild([] {
    DeskProcess& process = DeskProcess::instance();
    if (!process.isToTidy(0)) return false;
    for (int i = 1; i < 64; ++i) {
      if (process.isToTidy(1)) return false;
    }
    return process.isToTidy(1) && !process.isToTidy(1) && process.isToTidy(std::size_t{16} << 20) &&
           !process.isToTidy(1);
  }));
}

TEST(DeskProcess, Process_WarnsOnce) {
  EXPECT_TRUE(holdsInChild([] {
    DeskProcess& process = DeskProcess::instance();
    return process.isToWarn() && !process.isToWarn();
  }));
}

}  // namespace
}  // namespace Velantrix::Test
