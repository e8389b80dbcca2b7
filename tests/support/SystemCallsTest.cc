#include "support/SystemCalls.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace Velantrix::Test {
namespace {

TEST(SystemCalls, EachOfTheStep_IsTold_InItsOrder) {
  const std::vector<long> calls = systemCallsOf([] {
    syscall(SYS_getuid);
    syscall(SYS_gettid);
    syscall(SYS_getuid);
  });
  EXPECT_EQ(calls, (std::vector<long>{SYS_getuid, SYS_gettid, SYS_getuid}));
  EXPECT_TRUE(systemCallsOf([] {}).empty());
}

TEST(SystemCalls, SignalsReachTheStep) {
  static volatile std::sig_atomic_t heard = 0;
  std::signal(SIGUSR1, [](int) { heard = 1; });
  const std::vector<long> calls = systemCallsOf([] {
    static_cast<void>(raise(SIGUSR1));
    if (heard == 1) syscall(SYS_getuid);
  });
  std::signal(SIGUSR1, SIG_DFL);
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back(), SYS_getuid);
}

TEST(SystemCalls, StepThatDoesNotEndWell_Throws) {
  EXPECT_THROW(systemCallsOf([] { throw 7; }), std::runtime_error);
  EXPECT_THROW(systemCallsOf([] { _exit(0); }), std::runtime_error);
  EXPECT_THROW(systemCallsOf([] { static_cast<void>(raise(SIGKILL)); }), std::runtime_error);
}

}  // namespace
}  // namespace Velantrix::Test
