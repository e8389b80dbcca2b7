#include "support/Files.h"
#include "unit/foundation/base/Thrown.h"
#include "unit/store/Unprivileged.h"

#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::Exception;
using Velantrix::FileMediaOut;
using Velantrix::MediaOut;
using Velantrix::StringMediaOut;
using Velantrix::Test::readFile;
using Velantrix::Test::TempDir;
using Velantrix::Test::thrownBy;
using Velantrix::Test::Unprivileged;
using Velantrix::Test::writeFile;

using Names = std::vector<std::string>;

Names namesIn(const TempDir& dir) {
  Names names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void write(MediaOut& out, std::string_view text) { out.write(text.data(), text.size()); }

// A disk without room: no file of this process may grow beyond the limit.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : formerHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &former_), 0);
    rlimit limit = former_;
    limit.rlim_cur = bytes;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &former_), 0);
    std::signal(SIGXFSZ, formerHandler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*formerHandler_)(int);
  rlimit former_ = {};
};

// How often close() was called for what was no open descriptor. In a program with other threads that
// number may have become a file of theirs.
std::atomic<int> g_strayCloses{0};

auto openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

void setAge(const std::filesystem::path& path, std::time_t seconds) {
  const std::time_t then = std::time(nullptr) - seconds;
  const struct timespec times[2] = {{then, 0}, {then, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

class FileMediaOutTest : public testing::Test {
 protected:
  TempDir dir;
  std::string target = (dir / "4a6481c9.0").string();
};

TEST_F(FileMediaOutTest, Flush_Written_IsPublishedAndNothingElseIsLeft) {
  FileMediaOut out(target);
  write(out, "one ");
  write(out, "two");
  write(out, "");
  EXPECT_FALSE(std::filesystem::exists(target));
  out.flush();
  EXPECT_EQ(readFile(target), "one two");
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
}

TEST_F(FileMediaOutTest, Flush_NothingWritten_PublishesAnEmptyFile) {
  writeFile(target, "old");
  FileMediaOut out(target);
  out.flush();
  EXPECT_EQ(readFile(target), "");
}

TEST_F(FileMediaOutTest, Flush_Twice_LeavesWhatSomebodyElsePublishedInBetween) {
  FileMediaOut out(target);
  write(out, "mine");
  out.flush();
  writeFile(target, "theirs");
  out.flush();
  EXPECT_EQ(readFile(target), "theirs");
}

TEST_F(FileMediaOutTest, Destructor_NotFlushed_KeepsTheOldFileAndLeavesNothing) {
  writeFile(target, "old");
  {
    FileMediaOut out(target);
    write(out, "new");
    EXPECT_EQ(readFile(target), "old");
  }
  EXPECT_EQ(readFile(target), "old");
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
}

TEST_F(FileMediaOutTest, Write_AfterFlush_GoesOnWithWhatWasPublished) {
  const std::string first(100000, 'a');
  FileMediaOut out(target);
  write(out, first);
  out.flush();
  write(out, "second");
  EXPECT_EQ(readFile(target), first) << "published before it was flushed";
  out.flush();
  EXPECT_EQ(readFile(target), first + "second");
  write(out, "third");
  out.flush();
  EXPECT_EQ(readFile(target), first + "secondthird");
  write(out, "lost");
  EXPECT_EQ(readFile(target), first + "secondthird");
}

TEST_F(FileMediaOutTest, Flush_ReaderHasTheOldFileOpen_KeepsReadingIt) {
  writeFile(target, "old");
  const int reader = ::open(target.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  FileMediaOut out(target);
  write(out, "new");
  out.flush();
  char bytes[8] = {};
  EXPECT_EQ(::read(reader, bytes, sizeof bytes), 3);
  EXPECT_STREQ(bytes, "old");
  ::close(reader);
}

TEST_F(FileMediaOutTest, TemporaryName_WhileWriting_IsNoHashName) {
  FileMediaOut out(target);
  const Names names = namesIn(dir);
  ASSERT_EQ(names.size(), 1U);
  EXPECT_NE(names[0].find_first_not_of(" .0123456789ABCDEFabcdefrS"), std::string::npos);
  EXPECT_NE(names[0].find("-tmp-"), std::string::npos);
}

TEST_F(FileMediaOutTest, Mode_New_IsAllButTheUmask) {
  writeFile(target, "old");
  ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{027}, mode_t{077}, mode_t{0777}}) {
    const mode_t former = ::umask(mask);
    {
      FileMediaOut out(target);
      write(out, "x");
      out.flush();
      write(out, "y");
      out.flush();
    }
    ::umask(former);
    struct stat status = {};
    ASSERT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & mode_t{07777}, mode_t{0666} & ~mask) << std::oct << mask;
  }
}

TEST_F(FileMediaOutTest, Write_DiskFull_ThrowsAndKeepsTheOldFile) {
  writeFile(target, "old");
  FileMediaOut out(target);
  write(out, "begin");
  std::string text;
  {
    const FileSizeLimit limit(1000);
    const std::string big(5000, 'x');
    text = thrownBy([&] { write(out, big); });
  }
  EXPECT_NE(text.find(target + ": File too large"), std::string::npos) << text;
  EXPECT_EQ(readFile(target), "old");
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
  // What follows a failure must not publish half a file.
  EXPECT_NE(thrownBy([&] { write(out, "x"); }).find(target), std::string::npos);
  EXPECT_NE(thrownBy([&] { out.flush(); }).find(target), std::string::npos);
  EXPECT_EQ(readFile(target), "old");
}

TEST_F(FileMediaOutTest, Write_DiskFullAfterFlush_KeepsWhatWasPublished) {
  FileMediaOut out(target);
  write(out, "published");
  out.flush();
  {
    const FileSizeLimit limit(4);
    EXPECT_NE(thrownBy([&] { write(out, "x"); }), "");
  }
  EXPECT_EQ(readFile(target), "published");
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
}

TEST_F(FileMediaOutTest, Flush_TargetBecameADirectory_ThrowsAndLeavesNothing) {
  FileMediaOut out(target);
  write(out, "x");
  std::filesystem::create_directory(target);
  EXPECT_NE(thrownBy([&] { out.flush(); }).find(target), std::string::npos);
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
}

TEST_F(FileMediaOutTest, Constructor_NoPlaceForAFile_ThrowsWithPathAndReason) {
  std::filesystem::create_directory(dir / "directory");
  writeFile(dir / "file", "x");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  const struct {
    std::string path;
    std::string reason;
  } rows[] = {
      {dir.string() + "/missing/x", "No such file or directory"},
      {dir.string() + "/file/x", "Not a directory"},
      {dir.string() + "/directory", "Is a directory"},
      {dir.string() + "/directory/", "Is a directory"},
      {dir.string() + "/fifo", "Invalid argument"},
      {"/dev/null", "Invalid argument"},
      {"", "No such file or directory"},
      {"/proc/self/x", "No such file or directory"},
      {dir.string() + "/" + std::string(256, 'n'), "File name too long"},
  };
  for (const auto& row : rows) {
    const std::string text = thrownBy([&] { FileMediaOut out(row.path); });
    EXPECT_NE(text.find(row.path + ": " + row.reason), std::string::npos) << row.path << text;
  }
  EXPECT_NE(thrownBy([&] { FileMediaOut out(target + "\0x"s); }), "");
  EXPECT_EQ(namesIn(dir), (Names{"directory", "fifo", "file"}));
}

TEST_F(FileMediaOutTest, Flush_TargetIsALink_ReplacesTheLink) {
  writeFile(dir / "elsewhere", "untouched");
  std::filesystem::create_symlink("elsewhere", target);
  FileMediaOut out(target);
  write(out, "new");
  out.flush();
  EXPECT_EQ(readFile(dir / "elsewhere"), "untouched");
  EXPECT_FALSE(std::filesystem::is_symlink(target));
  EXPECT_EQ(readFile(target), "new");
}

TEST_F(FileMediaOutTest, Flush_LongestName_IsWritten) {
  const std::string name(255, 'f');
  FileMediaOut out((dir / name).string());
  write(out, "x");
  out.flush();
  EXPECT_EQ(namesIn(dir), Names{name});
}

TEST_F(FileMediaOutTest, Flush_NameInTheCurrentDirectory_IsWrittenThere) {
  const std::filesystem::path former = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  {
    FileMediaOut out("plain");
    write(out, "x");
    out.flush();
  }
  std::filesystem::current_path(former);
  EXPECT_EQ(readFile(dir / "plain"), "x");
}

TEST_F(FileMediaOutTest, Flush_DirectoryThatMayNotBeListed_IsWrittenThere) {
  const std::string leftover = target + "-tmp-0123456789abcdef";
  writeFile(leftover, "half");
  setAge(leftover, 7200);
  ASSERT_EQ(::chmod(dir.path().c_str(), 0300), 0);
  {
    const Unprivileged rights;
    ASSERT_LT(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), 0);
    FileMediaOut out(target);
    write(out, "new");
    out.flush();
  }
  ASSERT_EQ(::chmod(dir.path().c_str(), 0700), 0);
  EXPECT_EQ(readFile(target), "new");
  // Who may not list a directory does not find what an earlier writer left.
  EXPECT_EQ(namesIn(dir), (Names{"4a6481c9.0", "4a6481c9.0-tmp-0123456789abcdef"}));
}

TEST_F(FileMediaOutTest, TwoWriters_OneTarget_TheLastFlushWinsWhole) {
  FileMediaOut first(target);
  FileMediaOut second(target);
  write(first, std::string(5000, '1'));
  write(second, std::string(3000, '2'));
  second.flush();
  first.flush();
  EXPECT_EQ(readFile(target), std::string(5000, '1'));
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
}

TEST_F(FileMediaOutTest, KilledWriter_TheOldFileStandsAndTheLeftoverGoesAfterAnHour) {
  writeFile(target, "old");
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    FileMediaOut out(target);
    write(out, "half");
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(readFile(target), "old");
  const Names names = namesIn(dir);
  ASSERT_EQ(names.size(), 2U);
  const std::string leftover = names[1];

  { FileMediaOut out(target); }
  EXPECT_EQ(namesIn(dir), names) << "it may belong to a writer that is still at work";

  setAge(dir / leftover, 3700);
  { FileMediaOut out(target); }
  EXPECT_EQ(namesIn(dir), Names{"4a6481c9.0"});
}

TEST_F(FileMediaOutTest, Descriptors_AreClosedOnce) {
  const auto open = openDescriptors();
  const int strayCloses = g_strayCloses;
  {
    FileMediaOut out(target);
    write(out, "first");
    out.flush();
    write(out, "second");
    out.flush();
  }
  EXPECT_EQ(openDescriptors(), open);
  EXPECT_EQ(g_strayCloses, strayCloses);
}

TEST_F(FileMediaOutTest, Leftovers_OfOthers_AreLeftAlone) {
  const Names kept = {
      "4a6481c9.0-tmp-",                   // no digits
      "4a6481c9.0-tmp-0123456789abcde",    // one too few
      "4a6481c9.0-tmp-0123456789abcdef0",  // one too many
      "4a6481c9.0-tmp-0123456789abcdeg",   // no digit
      "5a6481c9.0-tmp-0123456789abcdef",   // another target's
      "4a6481c9.r0-tmp-0123456789abcdef",  // another target's
      "x4a6481c9.0-tmp-0123456789abcdef",  // another target's
  };
  for (const std::string& name : kept) {
    writeFile(dir / name, "x");
    setAge(dir / name, 7200);
  }
  std::filesystem::create_directory(dir / "4a6481c9.0-tmp-0123456789abcdef");
  setAge(dir / "4a6481c9.0-tmp-0123456789abcdef", 7200);
  std::filesystem::create_symlink("x", dir / "4a6481c9.0-tmp-1123456789abcdef");
  setAge(dir / "4a6481c9.0-tmp-1123456789abcdef", 7200);
  writeFile(dir / "4a6481c9.0-tmp-2123456789abcdef", "x");
  setAge(dir / "4a6481c9.0-tmp-2123456789abcdef", 7200);
  const Names before = namesIn(dir);
  { FileMediaOut out(target); }
  Names expected = before;
  std::erase(expected, "4a6481c9.0-tmp-2123456789abcdef");
  EXPECT_EQ(namesIn(dir), expected);
}

TEST(StringMediaOut, Write_Pieces_AreCollected) {
  StringMediaOut out;
  write(out, "one\0"s);
  out.write(nullptr, 0);
  out.flush();
  write(out, "two");
  EXPECT_EQ(out.text(), "one\0two"s);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int close(int descriptor) {
  static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  const int result = real(descriptor);
  if (result != 0 && errno == EBADF) ++g_strayCloses;
  return result;
}
