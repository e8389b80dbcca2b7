#include "foundation/base/ForkLock.h"
#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

using Velantrix::ForkLock;
using Velantrix::Test::collect;

// What the child was told last: 1 for whole, 0 for torn, -1 for nothing.
int told = -1;

ForkLock forkLock([](bool whole) { told = whole ? 1 : 0; });

// The exit code of a child that does the work.
template <class Work>
int inChild(Work work) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(work());
  return collect(child);
}

bool isFree() {
  const bool free = forkLock.try_lock();
  if (free) forkLock.unlock();
  return free;
}

TEST(ForkLock, FreeWhenForking_IsFreeAndWholeInTheChild) {
  const unsigned int before = forkLock.generation();
  EXPECT_EQ(inChild([before] {
              return told == 1 && isFree() && forkLock.generation() == before + 1 ? 0 : 1;
            }),
            0);
  EXPECT_TRUE(isFree());
  EXPECT_EQ(forkLock.generation(), before);
  EXPECT_EQ(told, -1);
}

TEST(ForkLock, HeldByAThreadThatWaitsForTheOneThatForks_IsFreeInTheChildAndTorn) {
  std::latch held(1);
  std::latch forked(1);
  std::thread holder([&] {
    const std::lock_guard<ForkLock> lock(forkLock);
    held.count_down();
    forked.wait();
  });
  held.wait();
  EXPECT_EQ(inChild([] { return told == 0 && isFree() ? 0 : 1; }), 0);
  EXPECT_FALSE(isFree());
  forked.count_down();
  holder.join();
  EXPECT_TRUE(isFree());
}

TEST(ForkLock, HeldForAMoment_IsWaitedFor) {
  std::latch held(1);
  std::thread holder([&] {
    const std::lock_guard<ForkLock> lock(forkLock);
    held.count_down();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  });
  held.wait();
  EXPECT_EQ(inChild([] { return told == 1 && isFree() ? 0 : 1; }), 0);
  holder.join();
}

TEST(ForkLock, ChildOfAChild_IsAnotherGeneration) {
  const unsigned int before = forkLock.generation();
  EXPECT_EQ(inChild([before] {
              return inChild(
                  [before] { return isFree() && forkLock.generation() == before + 2 ? 0 : 1; });
            }),
            0);
}

}  // namespace
