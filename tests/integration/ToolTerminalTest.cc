// Colour and progress: only on a terminal.
#include "ToolFixture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

[[noreturn]] void fail(const char* what, int error) {
  throw std::system_error(error, std::generic_category(), what);
}

// Where the standard output and the standard error of the tool go.
enum class Stream { Terminal, File };

// The tool, running with a terminal of its own.
class Running {
 public:
  Running(const std::vector<std::string>& arguments, Stream out, Stream err,
          const std::string& file, std::vector<std::string> variables = {}, int columns = 0)
      : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) {
      fail("no pseudo-terminal", errno);
    }
    winsize size = {};
    size.ws_col = static_cast<unsigned short>(columns);  // 0: the terminal does not know
    if (::ioctl(master_, TIOCSWINSZ, &size) != 0) fail("TIOCSWINSZ", errno);
    std::array<char, 128> name{};
    if (const int error = ::ptsname_r(master_, name.data(), name.size())) fail("ptsname", error);
    posix_spawn_file_actions_t actions;
    if (const int error = ::posix_spawn_file_actions_init(&actions)) fail("posix_spawn", error);
    const auto open = [&](int descriptor, Stream stream) {
      const bool terminal = stream == Stream::Terminal;
      const int error = ::posix_spawn_file_actions_addopen(
          &actions, descriptor, terminal ? name.data() : file.c_str(),
          terminal ? O_RDWR | O_NOCTTY : O_WRONLY | O_CREAT | O_APPEND, 0600);
      if (error != 0) fail("posix_spawn", error);
    };
    open(STDOUT_FILENO, out);
    open(STDERR_FILENO, err);

    std::vector<std::string> command{PKX509_TOOL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    // Sanitizers take their options from the environment; what colours depend on is the test's.
    for (char** variable = environ; *variable != nullptr; ++variable) {
      const std::string text = *variable;
      if (!text.starts_with("NO_COLOR=") && !text.starts_with("TERM=")) variables.push_back(text);
    }
    const int error = ::posix_spawn(&child_, PKX509_TOOL, &actions, nullptr,
                                    pointers(command).data(), pointers(variables).data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) fail(PKX509_TOOL, error);
  }
  ~Running() {
    if (child_ > 0) {
      ::kill(child_, SIGKILL);
      ::waitpid(child_, nullptr, 0);
    }
    ::close(master_);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  // Waits until the terminal shows `text`; false when the tool ends before.
  bool waitFor(const std::string& text) {
    while (screen_.find(text) == std::string::npos) {
      if (!readMore()) return false;
    }
    return true;
  }

  // Waits for the end; the exit status.
  int end() {
    while (readMore()) {
    }
    int status = 0;
    if (::waitpid(std::exchange(child_, 0), &status, 0) < 0) fail("waitpid", errno);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // All that has been written to the terminal, with its "\n" as they were.
  std::string screen() const {
    std::string text;
    for (std::size_t i = 0; i < screen_.size(); ++i) {
      if (screen_.compare(i, 2, "\r\n") != 0) text += screen_[i];
    }
    return text;
  }

 private:
  static std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    for (std::string& text : texts) all.push_back(text.data());
    all.push_back(nullptr);
    return all;
  }

  // False when nobody has the terminal any more.
  bool readMore() {
    pollfd ready{master_, POLLIN, 0};
    const int count = ::poll(&ready, 1, 60000);
    if (count == 0) throw std::runtime_error("not ended in time: " + screen_);
    if (count < 0) fail("poll", errno);
    std::array<char, 4096> block{};
    const ssize_t length = ::read(master_, block.data(), block.size());
    if (length <= 0) return false;
    screen_.append(block.data(), static_cast<std::size_t>(length));
    return true;
  }

  int master_;
  pid_t child_ = 0;
  std::string screen_;
};

constexpr char kGreen[] = "\x1b[32mvalid\x1b[0m";
constexpr char kRed[] = "\x1b[31minvalid\x1b[0m";

class ToolTerminal : public ToolFixture {
 protected:
  static Arguments bothVerdicts() {
    return verifyWith("good") + Arguments{person("good"), person("revoked")};
  }

  std::string fifo(const std::string& name) const {
    if (::mkfifo(own(name).c_str(), 0600) != 0) fail("mkfifo", errno);
    return own(name);
  }
};

TEST_F(ToolTerminal, VerdictsAreColoured_OnATerminal_AndNotOtherwise) {
  struct Row {
    Arguments options;
    Stream out;
    std::vector<std::string> variables;
    bool coloured;
  };
  const std::vector<std::string> xterm = {"TERM=xterm"};
  const std::vector<Row> rows = {
      {{}, Stream::Terminal, xterm, true},
      {{}, Stream::Terminal, {}, true},
      {{}, Stream::Terminal, {"TERM=dumb"}, false},
      {{}, Stream::Terminal, {"TERM=xterm", "NO_COLOR=1"}, false},
      {{}, Stream::Terminal, {"TERM=xterm", "NO_COLOR="}, true},
      {{}, Stream::File, xterm, false},
      {{"--color=auto"}, Stream::Terminal, xterm, true},
      {{"--color=auto"}, Stream::File, xterm, false},
      {{"--color", "never"}, Stream::Terminal, xterm, false},
      {{"--color=always"}, Stream::File, {"TERM=dumb", "NO_COLOR=1"}, true},
      {{"--color=always", "--json"}, Stream::Terminal, xterm, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.options) + testing::PrintToString(row.variables));
    std::filesystem::remove(own("out"));
    // Standard error is a terminal in every row: what counts is standard output.
    Running running(bothVerdicts() + row.options, row.out, Stream::Terminal, own("out"),
                    row.variables);
    EXPECT_EQ(running.end(), 1);
    const std::string out = row.out == Stream::File ? readFile(own("out")) : running.screen();
    EXPECT_EQ(out.find(person("good") + ": " + kGreen + ", code 0 ") != std::string::npos,
              row.coloured)
        << out;
    EXPECT_EQ(out.find(person("revoked") + ": " + kRed + ", code 23 ") != std::string::npos,
              row.coloured)
        << out;
    EXPECT_EQ(out.find('\x1b') != std::string::npos, row.coloured) << out;
    EXPECT_NE(out.find("valid"), std::string::npos) << out;
  }
}

TEST_F(ToolTerminal, Tree_IsAsWideAsTheTerminal_AndColoured) {
  const auto widthAt = [&](int columns, const char* when) {
    Running running(verifyWith("good") + Arguments{"--explain", "--color", when, person("revoked")},
                    Stream::Terminal, Stream::File, own("err"), {"TERM=xterm", "LC_ALL=C"},
                    columns);
    EXPECT_EQ(running.end(), 1);
    const std::string screen = running.screen();
    EXPECT_EQ(
        screen.find("\x1b[31mrevoked: the certificate is revoked\x1b[0m\n") != std::string::npos,
        std::string(when) == "auto")
        << screen;
    std::istringstream lines(screen.substr(screen.find('\n') + 1));
    std::size_t width = 0;
    for (std::string line; std::getline(lines, line);) width = std::max(width, line.size());
    return width;
  };
  EXPECT_LE(widthAt(0, "never"), 80U);
  EXPECT_GT(widthAt(0, "never"), 60U);
  EXPECT_LE(widthAt(60, "never"), 60U);
  EXPECT_LE(widthAt(5, "never"), 48U) << "what is less than 40 counts as 40";
  EXPECT_GT(widthAt(132, "never"), 100U);
  EXPECT_LE(widthAt(132, "never"), 132U);
  widthAt(80, "auto");
}

TEST_F(ToolTerminal, ColourOfAnotherName_IsRefused) {
  for (const char* when : {"", "yes", "ALWAYS"}) {
    const CommandResult result = tool(bothVerdicts() + Arguments{"--color", when});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "pkx509: --color: \"" + std::string(when) + "\" is none of auto, always and never\n");
  }
}

TEST_F(ToolTerminal, SeveralFilesThatTakeLong_AreCounted_OnATerminalOnly) {
  const std::string certificate = readFile(person("good"));
  for (const Arguments& use : {verifyWith("good"), Arguments{"show"}}) {
    SCOPED_TRACE(use.front());
    const auto files = [&](const std::string& name) {
      return use + Arguments{fifo(use.front() + name), person("good")};
    };
    // Each waits for its first file. The others start first: when the counter is seen, half a
    // second has gone by for them as well.
    Running unseen(files("unseen"), Stream::Terminal, Stream::File, own("unseen.err"));
    Running single(use + Arguments{fifo(use.front() + "single")}, Stream::File, Stream::Terminal,
                   own("single.out"));
    const Arguments counted = files("counted");
    Running running(counted, Stream::File, Stream::Terminal, own(use.front() + ".out"));
    Running mixed(files("mixed"), Stream::Terminal, Stream::Terminal, own("none"));
    ASSERT_TRUE(running.waitFor("file 1 of 2"));
    ASSERT_TRUE(mixed.waitFor("file 1 of 2"));
    for (const char* name : {"unseen", "single", "counted", "mixed"}) {
      writeFile(own(use.front() + name), certificate);
    }
    EXPECT_EQ(running.end(), 0);
    const std::string blanks(11, ' ');
    EXPECT_EQ(running.screen(), "\rfile 1 of 2\r" + blanks + "\r\rfile 2 of 2\r" + blanks + "\r");
    EXPECT_EQ(mixed.end(), 0);
    // The counter is wiped out before a report is written to the same terminal.
    const std::string first = "\rfile 1 of 2\r" + blanks + "\r" + own(use.front() + "mixed") + ": ";
    const std::string second = "\n\rfile 2 of 2\r" + blanks + "\r" + person("good") + ": ";
    EXPECT_TRUE(mixed.screen().starts_with(first)) << mixed.screen();
    EXPECT_NE(mixed.screen().find(second), std::string::npos) << mixed.screen();
    EXPECT_EQ(unseen.end(), 0);
    EXPECT_EQ(readFile(own("unseen.err")), "");
    EXPECT_EQ(unseen.screen().find("file 1"), std::string::npos) << unseen.screen();
    EXPECT_EQ(single.end(), 0);
    EXPECT_EQ(single.screen(), "");
  }
}

TEST_F(ToolTerminal, Counter_DoesNotComeBeforeHalfASecond) {
  const auto start = std::chrono::steady_clock::now();
  Running running({"show", fifo("slow"), person("good")}, Stream::File, Stream::Terminal,
                  own("out"));
  ASSERT_TRUE(running.waitFor("file 1 of 2"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  writeFile(own("slow"), readFile(person("good")));
  EXPECT_EQ(running.end(), 0);
}

}  // namespace
}  // namespace Velantrix::Test
