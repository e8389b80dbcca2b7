#include "foundation/base/FileDescriptor.h"
#include "foundation/base/FileStamp.h"
#include "support/Files.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Velantrix::CoarseStamps;
using Velantrix::FileDescriptor;
using Velantrix::FileStamp;
using Velantrix::isOnLocalFileSystem;
using Velantrix::StampClockAhead;
using Velantrix::Test::TempDir;
using Velantrix::Test::writeFile;

constexpr std::int64_t kSecond = 1'000'000'000;

FileStamp stampAt(std::int64_t modified, std::int64_t changed) {
  struct stat status = {};
  status.st_mtim = {modified / kSecond, modified % kSecond};
  status.st_ctim = {changed / kSecond, changed % kSecond};
  return FileStamp::of(status);
}

void setModified(const std::filesystem::path& path, timespec time) {
  const timespec times[] = {time, time};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(FileStamp, PathDescriptorAndStatusOfOneFile_AreTheSame) {
  const TempDir dir;
  writeFile(dir / "file", "content");
  const FileDescriptor file(::open((dir / "file").c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  const FileStamp stamp = FileStamp::of(status);
  EXPECT_EQ(FileStamp::of(file.get()), stamp);
  EXPECT_EQ(FileStamp::at((dir / "file").c_str()), stamp);
  std::filesystem::create_symlink("file", dir / "link");
  EXPECT_EQ(FileStamp::at((dir / "link").c_str()), stamp);
  EXPECT_EQ(stamp.size, 7);
  EXPECT_TRUE(stamp.regular);
  EXPECT_FALSE(FileStamp::at(dir.string().c_str())->regular);
}

TEST(FileStamp, WhatIsNotThere_IsNoneAndErrnoSaysWhy) {
  const TempDir dir;
  EXPECT_EQ(FileStamp::at((dir / "file").c_str()), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(FileStamp::of(-1), std::nullopt);
  EXPECT_EQ(errno, EBADF);
}

TEST(FileStamp, ContentNameTimeAndModeThatChange_MakeAnother) {
  const TempDir dir;
  const std::string path = dir / "file";
  writeFile(path, "content");
  setModified(path, {1000, 1});
  const auto first = FileStamp::at(path.c_str());
  setModified(path, {1000, 2});
  const auto touched = FileStamp::at(path.c_str());
  EXPECT_NE(touched, first);
  writeFile(dir / "other", "content");
  setModified(dir / "other", {1000, 2});
  EXPECT_NE(FileStamp::at((dir / "other").c_str()), touched);
  // The mode alone changes nothing but the time of the change, which may be the tick of before.
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  EXPECT_GE(FileStamp::at(path.c_str())->changed, touched->changed);
  FileStamp chmodded = *touched;
  ++chmodded.changed;
  EXPECT_NE(chmodded, touched);
}

TEST(FileStamp, Settled_WhenBothTimesAreTwoSecondsBeforeTheReading) {
  const FileStamp stamp = stampAt(100 * kSecond, 100 * kSecond);
  EXPECT_TRUE(stamp.isSettled(102s));
  EXPECT_FALSE(stamp.isSettled(102s - 1ns));
  EXPECT_FALSE(stamp.isSettled(100s));
  EXPECT_FALSE(stamp.isSettled(50s));
  EXPECT_FALSE(stamp.isSettled(std::chrono::nanoseconds::min()));
  EXPECT_FALSE(stampAt(100 * kSecond, 100 * kSecond + 1).isSettled(102s));
  EXPECT_FALSE(stampAt(100 * kSecond + 1, 100 * kSecond).isSettled(102s));
  EXPECT_TRUE(stampAt(-kSecond, 100 * kSecond).isSettled(102s));
}

TEST(FileStamp, RealTime_IsTheClockOfFiles) {
  const TempDir dir;
  writeFile(dir / "file", "content");
  const auto since = FileStamp::realTime() -
                     std::chrono::nanoseconds(FileStamp::at((dir / "file").c_str())->changed);
  EXPECT_GT(since, -1s);
  EXPECT_LT(since, 60s);
}

TEST(FileStamp, CoarseClock_CutsTimesWhileItLasts) {
  {
    const CoarseStamps coarse(1s);
    EXPECT_EQ(stampAt(5 * kSecond + 1, 6 * kSecond + 2), stampAt(5 * kSecond + 9, 6 * kSecond));
  }
  EXPECT_EQ(stampAt(5 * kSecond + 1, 6 * kSecond + 2).modified, 5 * kSecond + 1);
}

TEST(FileStamp, ClockAhead_SettlesWhatIsNewWhileItLasts) {
  const TempDir dir;
  writeFile(dir / "file", "content");
  const FileStamp stamp = *FileStamp::at((dir / "file").c_str());
  {
    const StampClockAhead later(3s);
    EXPECT_TRUE(stamp.isSettled(FileStamp::realTime()));
  }
  EXPECT_FALSE(stamp.isSettled(FileStamp::realTime()));
}

TEST(FileStamp, FileSystemsOfPrograms_AreNotLocal) {
  const FileDescriptor program(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(program.valid());
  EXPECT_FALSE(isOnLocalFileSystem(program.get()));
  EXPECT_FALSE(isOnLocalFileSystem(-1));
  const FileDescriptor memory(::open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(memory.valid());
  EXPECT_TRUE(isOnLocalFileSystem(memory.get()));
  EXPECT_TRUE(isOnLocalFileSystem("/dev/shm"));
  EXPECT_FALSE(isOnLocalFileSystem("/proc/self/status"));
  EXPECT_FALSE(isOnLocalFileSystem("/nowhere"));
}

}  // namespace
