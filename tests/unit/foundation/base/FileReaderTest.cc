#include "foundation/base/FileDescriptor.h"
#include "foundation/base/FileReader.h"
#include "foundation/base/FileStamp.h"
#include "support/Files.h"

#include <velantrix/Exception.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::Exception;
using Velantrix::FileDescriptor;
using Velantrix::FileRead;
using Velantrix::FileStamp;
using Velantrix::kMaxInputSize;
using Velantrix::StampClockAhead;
using Velantrix::File::Path;
using Velantrix::Test::TempDir;
using Velantrix::Test::writeFile;

std::string read(const std::string& path, std::size_t limit = kMaxInputSize) {
  const std::vector<unsigned char> bytes = Velantrix::readFile(Path(path), limit);
  return std::string(bytes.begin(), bytes.end());
}

// What reading throws, as one line; empty when it does not.
std::string failure(const std::string& path, std::size_t limit = kMaxInputSize) {
  try {
    read(path, limit);
  } catch (const Exception& e) {
    EXPECT_EQ(e.code(), 4);
    return e.asString();
  }
  return std::string();
}

// Feeds a FIFO from a thread. The reader may leave early: then the rest is not wanted.
class Feeder {
 public:
  Feeder(const std::string& fifo, std::string content)
      : thread_([fifo, content = std::move(content)] {
          std::signal(SIGPIPE, SIG_IGN);
          const int file = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
          std::size_t done = 0;
          while (file >= 0 && done < content.size()) {
            const ssize_t n = ::write(file, content.data() + done, content.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
          }
          if (file >= 0) ::close(file);
        }) {}
  ~Feeder() { thread_.join(); }
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

 private:
  std::thread thread_;
};

TEST(FileReader, ReadFile_RegularFile_GivesAllBytes) {
  const TempDir dir;
  const std::string path = (dir / "file").string();
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{65535},
                                 std::size_t{65536}, std::size_t{300001}}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 7);
    writeFile(path, content);
    EXPECT_EQ(read(path), content) << size;
  }
}

TEST(FileReader, ReadOctets_GivesAllBytesToo) {
  const TempDir directory;
  const std::string content(300000, 'x');
  writeFile(directory / "file", content);
  const Velantrix::Octets octets = Velantrix::readOctets(Path((directory / "file").string()));
  EXPECT_EQ(std::string(octets.begin(), octets.end()), content);
}

TEST(FileReader, ReadFile_FileThatTellsNoSize_IsReadToItsEnd) {
  EXPECT_NE(read("/proc/self/status").find("Name:"), std::string::npos);
}

TEST(FileReader, ReadFile_Limit_IsTheLargestSizeThatIsRead) {
  const TempDir dir;
  const std::string path = (dir / "file").string();
  writeFile(path, "12345");
  EXPECT_EQ(read(path, 5), "12345");
  const std::string text = failure(path, 4);
  EXPECT_NE(text.find(path + ": The file is too large."), std::string::npos) << text;
  writeFile(path, "");
  EXPECT_EQ(read(path, 0), "");
}

TEST(FileReader, ReadFile_SparseFileAboveTheDefaultLimit_IsRefused) {
  const TempDir dir;
  const std::string path = (dir / "huge").string();
  writeFile(path, "");
  ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(kMaxInputSize) + 1), 0);
  EXPECT_NE(failure(path).find(path), std::string::npos);
}

TEST(FileReader, ReadFile_Fifo_IsReadUntilItsWriterIsGone) {
  const TempDir dir;
  const std::string path = (dir / "fifo").string();
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const std::string content(200000, 'x');
  const Feeder feeder(path, content);
  EXPECT_EQ(read(path), content);
}

TEST(FileReader, ReadFile_FifoAboveTheLimit_IsRefused) {
  const TempDir dir;
  const std::string path = (dir / "fifo").string();
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const Feeder feeder(path, std::string(200000, 'x'));
  const std::string text = failure(path, 100000);
  EXPECT_NE(text.find(path + ": The file is too large."), std::string::npos) << text;
}

TEST(FileReader, ReadFile_NoFile_ThrowsWithPathAndReason) {
  const TempDir dir;
  const struct {
    std::string path;
    std::string reason;
  } rows[] = {
      {"/nowhere/x", "No such file or directory"},
      {dir.string(), "Is a directory"},
      {"/dev/zero", "Not a regular file."},
      {"/dev/null", "Not a regular file."},
  };
  for (const auto& row : rows) {
    const std::string text = failure(row.path);
    EXPECT_NE(text.find(row.path + ": " + row.reason), std::string::npos) << text;
  }
}

TEST(FileReader, ReadFile_FileThatOpensAndCannotBeRead_ThrowsWithPathAndReason) {
  // A regular file, and nothing is mapped at the address that its beginning stands for.
  EXPECT_NE(failure("/proc/self/mem").find("/proc/self/mem: Input/output error"),
            std::string::npos);
}

TEST(FileReader, WithStamp_LastsWhenTheFileIsSettled) {
  const TempDir dir;
  writeFile(dir / "file", "content");
  const Path path(dir / "file");
  const FileRead fresh = Velantrix::readFileWithStamp(path);
  EXPECT_EQ(std::string(fresh.content.begin(), fresh.content.end()), "content");
  EXPECT_EQ(FileStamp::at((dir / "file").c_str()), fresh.stamp);
  EXPECT_FALSE(fresh.lasts);
  const StampClockAhead later(std::chrono::seconds(3));
  EXPECT_TRUE(Velantrix::readFileWithStamp(path).lasts);
}

TEST(FileReader, WithStamp_NeverLastsForAFifoAndForFilesOfPrograms) {
  const TempDir dir;
  const std::string path = dir / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const Feeder feeder(path, "content");
  const StampClockAhead later(std::chrono::seconds(3));
  EXPECT_FALSE(Velantrix::readFileWithStamp(Path(path)).lasts);
  EXPECT_FALSE(Velantrix::readFileWithStamp(Path("/proc/self/status")).lasts);
}

// Changes the file as soon as somebody has opened it.
class Changer {
 public:
  explicit Changer(const std::string& path) : watch_(::inotify_init1(IN_CLOEXEC)), path_(path) {
    if (::inotify_add_watch(watch_.get(), path.c_str(), IN_OPEN) < 0)
      throw std::runtime_error("inotify");
    thread_ = std::thread([this] {
      std::array<char, 4096> events{};
      if (::read(watch_.get(), events.data(), events.size()) <= 0) return;
      changed = ::utimensat(AT_FDCWD, path_.c_str(), kTimes, 0) == 0;
    });
  }
  ~Changer() { thread_.join(); }
  Changer(const Changer&) = delete;
  Changer& operator=(const Changer&) = delete;

  std::atomic<bool> changed = false;

 private:
  static constexpr timespec kTimes[] = {{1, 0}, {1, 0}};

  FileDescriptor watch_;
  std::string path_;
  std::thread thread_;
};

TEST(FileReader, WithStamp_ChangedWhileItIsRead_DoesNotLast) {
  const TempDir dir;
  const std::string path = dir / "file";
  writeFile(path, std::string(std::size_t{8} * 1024 * 1024, 'x'));
  const StampClockAhead later(std::chrono::seconds(3));
  // It may be read before it is changed; sooner or later it is not.
  for (int tries = 0; tries < 1000; ++tries) {
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0), 0);
    Changer changer(path);
    const FileStamp before = *FileStamp::at(path.c_str());
    const FileRead read = Velantrix::readFileWithStamp(Path(path));
    if (!changer.changed || read.stamp != before) continue;
    EXPECT_FALSE(read.lasts);
    return;
  }
  FAIL() << "It was never changed in time.";
}

TEST(FileReader, ReadFile_NulInName_ThrowsInsteadOfReadingAnotherFile) {
  const TempDir dir;
  writeFile(dir / "file", "x");
  EXPECT_NE(failure((dir / "file").string() + "\0y"s), "");
}

}  // namespace
