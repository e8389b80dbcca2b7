#include "foundation/base/Shortfall.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <thread>

namespace Velantrix::Test {
namespace {

TEST(Shortfall, NothingNoted_NothingNoticed) {
  const Shortfall::Watch watch;
  EXPECT_FALSE(watch.noted());
}

TEST(Shortfall, Noted_StaysNoted) {
  const Shortfall::Watch watch;
  Shortfall::note();
  EXPECT_TRUE(watch.noted());
  Shortfall::note();
  EXPECT_TRUE(watch.noted());
}

TEST(Shortfall, NobodyWatches_NothingHappens) {
  Shortfall::note();
  const Shortfall::Watch watch;
  EXPECT_FALSE(watch.noted());
}

TEST(Shortfall, InnerWatch_TheOuterOnesNoticeToo) {
  const Shortfall::Watch outer;
  {
    const Shortfall::Watch before;
    EXPECT_FALSE(before.noted());
  }
  {
    const Shortfall::Watch inner;
    Shortfall::note();
    EXPECT_TRUE(inner.noted());
  }
  EXPECT_TRUE(outer.noted());
  const Shortfall::Watch after;
  EXPECT_FALSE(after.noted());
}

TEST(Shortfall, OtherThread_IsItsOwnAffair) {
  const Shortfall::Watch watch;
  std::thread([] { Shortfall::note(); }).join();
  EXPECT_FALSE(watch.noted());
}

TEST(Shortfall, SystemErrors_ThoseOfExhaustionCount) {
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
    const Shortfall::Watch watch;
    Shortfall::noteIfExhausted(error);
    EXPECT_TRUE(watch.noted()) << error;
  }
  for (const int error : {0, ENOENT, EACCES, ECONNREFUSED, ENOSPC, ETIMEDOUT, EIO}) {
    const Shortfall::Watch watch;
    Shortfall::noteIfExhausted(error);
    EXPECT_FALSE(watch.noted()) << error;
  }
}

}  // namespace
}  // namespace Velantrix::Test
