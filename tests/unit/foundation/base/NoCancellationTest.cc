#include "foundation/base/NoCancellation.h"

#include <gtest/gtest.h>
#include <pthread.h>

namespace Velantrix::Test {
namespace {

int state() {
  int now = 0;
  EXPECT_EQ(::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &now), 0);
  int ignored = 0;
  EXPECT_EQ(::pthread_setcancelstate(now, &ignored), 0);
  return now;
}

TEST(NoCancellation, InnermostToOutermost_WhatWasBeforeComesBack) {
  EXPECT_EQ(state(), PTHREAD_CANCEL_ENABLE);
  {
    const NoCancellation outer;
    {
      const NoCancellation inner;
      EXPECT_EQ(state(), PTHREAD_CANCEL_DISABLE);
    }
    EXPECT_EQ(state(), PTHREAD_CANCEL_DISABLE);
  }
  EXPECT_EQ(state(), PTHREAD_CANCEL_ENABLE);
}

TEST(NoCancellation, RequestInBetween_IsHeededAfterwards) {
  pthread_t thread{};
  bool passed = false;
  const auto body = [](void* flag) -> void* {
    {
      const NoCancellation here;
      ::pthread_cancel(::pthread_self());
      ::pthread_testcancel();
      *static_cast<bool*>(flag) = true;
    }
    ::pthread_testcancel();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, nullptr, body, &passed), 0);
  void* result = nullptr;
  ASSERT_EQ(::pthread_join(thread, &result), 0);
  EXPECT_TRUE(passed);
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

}  // namespace
}  // namespace Velantrix::Test
