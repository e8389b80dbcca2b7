#include "support/ChildProcess.h"
#include "support/Process.h"

#include <array>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <signal.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

std::unique_ptr<BackgroundProcess> shell(const std::string& script) {
  return std::make_unique<BackgroundProcess>(std::vector<std::string>{"sh", "-c", script});
}

TEST(BackgroundProcess, WritesALine_LineIsReturnedWhole) {
  const auto process =
      shell("echo first; echo before; printf 'the ready'; printf ' line\\n' >&2; exec sleep 60");
  EXPECT_EQ(process->waitForLine("ready"), "the ready line");
  EXPECT_EQ(process->waitForLine("fir"), "first");
  EXPECT_EQ(process->output(), "first\nbefore\nthe ready line\n");
  EXPECT_TRUE(process->running());
}

TEST(BackgroundProcess, LineDoesNotCome_ThrowsAtTheLimit) {
  const auto process = shell("printf 'no end of line'; exec sleep 60");
  EXPECT_THROW(process->waitForLine("no end", 50ms), std::runtime_error);
  EXPECT_TRUE(process->running());
}

TEST(BackgroundProcess, EndsWithoutTheLine_ThrowsAtOnceWithTheOutput) {
  const auto process = shell("echo cannot bind >&2; exit 3");
  const auto begin = std::chrono::steady_clock::now();
  try {
    process->waitForLine("ready");
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("ended without: ready\ncannot bind"),
              std::string::npos)
        << error.what();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
  EXPECT_FALSE(process->running());
  EXPECT_EQ(process->stop(), 3);
}

TEST(BackgroundProcess, MuchOutput_NeverBlocksTheProcess) {
  const auto process = shell("head -c 3000000 /dev/zero; echo; echo done");
  process->waitForLine("done");
  EXPECT_EQ(process->output().size(), 3000006U);
}

TEST(BackgroundProcess, EndsAfterManyBytes_AllOfThemAreThere) {
  const auto process = shell("head -c 65536 /dev/zero");
  EXPECT_FALSE(process->waitForOutput([](const std::string&) { return false; }));
  EXPECT_EQ(process->output().size(), 65536U);
}

TEST(BackgroundProcess, ClosesItsOutputs_RunsOn) {
  const auto process = shell("echo x; exec >/dev/null 2>&1; exec sleep 60");
  process->waitForLine("x");
  EXPECT_FALSE(process->waitForOutput([](const std::string&) { return false; }, 50ms));
  EXPECT_TRUE(process->running());
}

TEST(BackgroundProcess, Stopped_EndsBySigtermAndStaysEnded) {
  const auto process = shell("exec sleep 60");
  EXPECT_TRUE(process->running());
  EXPECT_EQ(process->stop(), 128 + SIGTERM);
  EXPECT_FALSE(process->running());
  EXPECT_EQ(process->stop(), 128 + SIGTERM);
}

TEST(BackgroundProcess, IgnoresSigterm_IsKilledAfterItsTime) {
  const auto process = shell("trap '' TERM; echo ready; while :; do sleep 60; done");
  process->waitForLine("ready");
  EXPECT_EQ(process->stop(50ms), 128 + SIGKILL);
}

TEST(BackgroundProcess, Frozen_IsKilledAfterItsTime) {
  const auto process = shell("exec sleep 60");
  const auto pid = static_cast<id_t>(process->pid());
  ASSERT_EQ(kill(process->pid(), SIGSTOP), 0);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, pid, &info, WSTOPPED | WNOWAIT), 0);
  EXPECT_EQ(process->stop(50ms), 128 + SIGKILL);
}

/// The number that the script wrote after "child ".
Descriptor openChild(const BackgroundProcess& process) {
  const std::string line = process.waitForLine("child ");
  return openProcess(static_cast<pid_t>(std::stol(line.substr(line.find(' ')))));
}

TEST(BackgroundProcess, ObjectGoesAway_ChildrenOfTheProcessEndToo) {
  Descriptor running;
  Descriptor abandoned;
  {
    const auto process = shell("sleep 60 & echo child $!; wait");
    running = openChild(*process);
    const auto other = shell("trap '' TERM; sleep 60 & echo child $!");
    abandoned = openChild(*other);
    EXPECT_FALSE(other->waitForOutput([](const std::string&) { return false; }));
    EXPECT_FALSE(other->running());
    EXPECT_FALSE(waitForEnd(abandoned, 0ms));
  }
  EXPECT_TRUE(waitForEnd(running, 10s));
  EXPECT_TRUE(waitForEnd(abandoned, 10s));
}

TEST(BackgroundProcess, TestIsKilled_ProcessEndsToo) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const Descriptor from(ends[0], "pipe2");
  const Descriptor to(ends[1], "pipe2");
  const pid_t test = fork();
  ASSERT_GE(test, 0);
  if (test == 0) {
    const BackgroundProcess process({"sleep", "60"});
    const pid_t pid = process.pid();
    if (write(to.number(), &pid, sizeof pid) != sizeof pid) _exit(1);
    pause();
  }
  pid_t pid = 0;
  ASSERT_EQ(read(from.number(), &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
  const Descriptor process = openProcess(pid);
  EXPECT_FALSE(waitForEnd(process, 0ms));
  ASSERT_EQ(kill(test, SIGKILL), 0);
  EXPECT_EQ(collect(test), 128 + SIGKILL);
  EXPECT_TRUE(waitForEnd(process, 10s));
}

TEST(BackgroundProcess, ArgumentsWithBlanksAndQuotes_ArriveUnchanged) {
  const BackgroundProcess process({"printf", "%s|\n", "a b", "'$HOME'", ""});
  process.waitForLine("'$HOME'|");
  process.waitForOutput([](const std::string&) { return false; });
  EXPECT_EQ(process.output(), "a b|\n'$HOME'|\n|\n");
}

TEST(BackgroundProcess, Input_IsEmpty) {
  BackgroundProcess process({"cat"});
  EXPECT_FALSE(process.waitForOutput([](const std::string&) { return false; }));
  EXPECT_EQ(process.stop(), 0);
}

TEST(BackgroundProcess, NoSuchCommand_Throws) {
  EXPECT_THROW(BackgroundProcess({"/nonexistent/command"}), std::system_error);
  EXPECT_THROW(BackgroundProcess({}), std::runtime_error);
}

}  // namespace
}  // namespace Velantrix::Test
