#include "foundation/base/Shortfall.h"
#include "foundation/net/Cancellation.h"

#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <stop_token>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Velantrix::Test {
namespace {

bool isReadable(int descriptor, int milliseconds = 0) {
  pollfd entry{descriptor, POLLIN, 0};
  return ::poll(&entry, 1, milliseconds) == 1 && (entry.revents & POLLIN) != 0;
}

// Whether a child that is forked here ends well with what it does.
template <class Body>
bool inChild(Body&& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(10);
    ::_exit(body() ? 0 : 1);
  }
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Cancellation, NobodyInstalledOne_NothingIsAsked) {
  const Shortfall::Watch watch;
  EXPECT_FALSE(Cancellation::requested());
  EXPECT_FALSE(Cancellation::noticed());
  EXPECT_EQ(Cancellation::descriptor(), -1);
  EXPECT_FALSE(Cancellation::token().stop_possible());
  EXPECT_FALSE(watch.noted());
}

TEST(Cancellation, TokenThatNobodyCanUse_IsNothing) {
  const Cancellation here{std::stop_token()};
  EXPECT_FALSE(Cancellation::requested());
  EXPECT_EQ(Cancellation::descriptor(), -1);
}

TEST(Cancellation, Requested_IsNotedEachTimeSomebodyAsks) {
  std::stop_source source;
  const Shortfall::Watch watch;
  const Cancellation here(source.get_token());
  EXPECT_FALSE(Cancellation::requested());
  source.request_stop();
  EXPECT_FALSE(Cancellation::noticed()) << "nobody has asked";
  EXPECT_FALSE(watch.noted());
  EXPECT_TRUE(Cancellation::requested());
  EXPECT_TRUE(Cancellation::noticed());
  EXPECT_TRUE(watch.noted());
  const Shortfall::Watch later;
  EXPECT_TRUE(Cancellation::requested());
  EXPECT_TRUE(later.noted());
}

TEST(Cancellation, Descriptor_BecomesReadableAndStaysSo) {
  std::stop_source source;
  const Cancellation here(source.get_token());
  const int descriptor = Cancellation::descriptor();
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(Cancellation::descriptor(), descriptor);
  EXPECT_FALSE(isReadable(descriptor));
  std::thread other([&] { source.request_stop(); });
  EXPECT_TRUE(isReadable(descriptor, 10'000));
  other.join();
  EXPECT_TRUE(isReadable(Cancellation::descriptor()));
}

TEST(Cancellation, RequestedBefore_DescriptorIsReadableAtOnce) {
  std::stop_source source;
  source.request_stop();
  const Cancellation here(source.get_token());
  EXPECT_TRUE(Cancellation::requested());
  EXPECT_TRUE(isReadable(Cancellation::descriptor()));
}

TEST(Cancellation, SourceGone_NothingIsAsked) {
  std::stop_source source;
  const Cancellation here(source.get_token());
  const int descriptor = Cancellation::descriptor();
  source = std::stop_source(std::nostopstate);
  EXPECT_FALSE(Cancellation::requested());
  EXPECT_FALSE(isReadable(descriptor));
}

TEST(Cancellation, Destroyed_HoldsNoLonger) {
  std::stop_source source;
  {
    const Cancellation here(source.get_token());
    EXPECT_GE(Cancellation::descriptor(), 0);
    source.request_stop();
    EXPECT_TRUE(Cancellation::requested());
  }
  EXPECT_FALSE(Cancellation::requested());
  EXPECT_FALSE(Cancellation::noticed());
  EXPECT_EQ(Cancellation::descriptor(), -1);
}

TEST(Cancellation, OtherThread_IsItsOwnAffair) {
  std::stop_source source;
  const Cancellation here(source.get_token());
  source.request_stop();
  bool requested = true;
  std::thread([&] { requested = Cancellation::requested(); }).join();
  EXPECT_FALSE(requested);
}

TEST(Cancellation, Nested_EitherOneStopsTheInner) {
  for (const bool byOuter : {true, false}) {
    std::stop_source outerSource;
    std::stop_source innerSource;
    const Cancellation outer(outerSource.get_token());
    {
      const Cancellation inner(innerSource.get_token());
      const int descriptor = Cancellation::descriptor();
      EXPECT_FALSE(Cancellation::requested());
      EXPECT_FALSE(isReadable(descriptor));
      (byOuter ? outerSource : innerSource).request_stop();
      EXPECT_TRUE(isReadable(descriptor));
      EXPECT_TRUE(Cancellation::token().stop_requested());
      EXPECT_TRUE(Cancellation::requested());
    }
    EXPECT_EQ(Cancellation::requested(), byOuter);
  }
}

TEST(Cancellation, NestedOneThatNobodyCanUse_OuterHolds) {
  std::stop_source source;
  const Cancellation outer(source.get_token());
  const Cancellation inner{std::stop_token()};
  source.request_stop();
  EXPECT_TRUE(Cancellation::requested());
  EXPECT_TRUE(isReadable(Cancellation::descriptor()));
}

TEST(Cancellation, NoDescriptorLeft_IsStillHeardBetweenSteps) {
  std::stop_source source;
  const Cancellation here(source.get_token());
  rlimit former{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
  const rlimit none{0, former.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(Cancellation::descriptor(), -1);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
  EXPECT_GE(Cancellation::descriptor(), 0) << "it is tried again";
  source.request_stop();
  EXPECT_TRUE(Cancellation::requested());
}

TEST(Cancellation, ForkedChild_DoesNotStopItsParent) {
  std::stop_source source;
  const Cancellation here(source.get_token());
  const int descriptor = Cancellation::descriptor();
  EXPECT_TRUE(inChild([&] {
    source.request_stop();
    return Cancellation::requested() && isReadable(Cancellation::descriptor());
  }));
  EXPECT_FALSE(Cancellation::requested());
  EXPECT_FALSE(isReadable(descriptor));
}

TEST(Cancellation, ForkedChild_IsNotStoppedByItsParent) {
  std::stop_source source;
  int go[2] = {};
  ASSERT_EQ(::pipe(go), 0);
  const Cancellation here(source.get_token());
  ASSERT_GE(Cancellation::descriptor(), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(10);
    char octet = 0;
    const bool told = ::read(go[0], &octet, 1) == 1;
    ::_exit(told && !Cancellation::requested() && !isReadable(Cancellation::descriptor()) ? 0 : 1);
  }
  source.request_stop();
  EXPECT_EQ(::write(go[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(isReadable(Cancellation::descriptor()));
  ::close(go[0]);
  ::close(go[1]);
}

}  // namespace
}  // namespace Velantrix::Test
