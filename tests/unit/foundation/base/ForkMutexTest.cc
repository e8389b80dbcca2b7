#include "foundation/base/ForkMutex.h"
#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Velantrix::ForkMutex;
using Velantrix::ForkOnce;
using Velantrix::Test::collect;

// Whether it is true in a child, which may hang.
template <class Work>
bool holdsInForked(Work work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);
    ::_exit(work() ? 0 : 1);
  }
  return collect(child) == 0;
}

TEST(ForkMutex, Threads_ExcludeEachOther) {
  ForkMutex mutex;
  int count = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int j = 0; j < 1000; ++j) {
          const std::lock_guard<ForkMutex> held(mutex);
          ++count;
        }
      });
    }
  }
  EXPECT_EQ(count, 4000);
}

TEST(ForkMutex, HeldByAThreadOfTheParent_IsFreeInTheChildAndExcludesThere) {
  ForkMutex mutex;
  std::latch isHeld(1);
  std::latch forked(1);
  std::jthread holder([&] {
    const std::lock_guard<ForkMutex> held(mutex);
    isHeld.count_down();
    forked.wait();
  });
  isHeld.wait();
  EXPECT_TRUE(holdsInForked([&] {
    int count = 0;
    {
      std::vector<std::jthread> threads;
      for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
          for (int j = 0; j < 1000; ++j) {
            const std::lock_guard<ForkMutex> held(mutex);
            ++count;
          }
        });
      }
    }
    return count == 2000 && holdsInForked([&] {
             const std::lock_guard<ForkMutex> held(mutex);
             return true;
           });
  }));
  forked.count_down();
}

TEST(ForkOnce, Threads_DoItOnce) {
  ForkOnce once;
  int calls = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&] { once.call([&] { ++calls; }); });
  }
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(holdsInForked([&] {
    once.call([&] { ++calls; });
    return calls == 1;
  }));
}

TEST(ForkOnce, ThreadOfTheParentThatDoesIt_LeavesItToTheChild) {
  ForkOnce once;
  std::latch begun(1);
  std::latch forked(1);
  int calls = 0;
  std::jthread doing([&] {
    once.call([&] {
      begun.count_down();
      forked.wait();
    });
  });
  begun.wait();
  EXPECT_TRUE(holdsInForked([&] {
    once.call([&] { ++calls; });
    once.call([&] { ++calls; });
    return calls == 1;
  }));
  forked.count_down();
}

TEST(ForkOnce, WhatThrows_IsDoneAgain) {
  ForkOnce once;
  EXPECT_THROW(once.call([] { throw 1; }), int);
  int calls = 0;
  once.call([&] { ++calls; });
  EXPECT_EQ(calls, 1);
}

}  // namespace
