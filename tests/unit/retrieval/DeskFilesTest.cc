#include "retrieval/DeskFiles.h"
#include "support/Files.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;

class DeskFilesTest : public testing::Test {
 protected:
  static std::string nameOf(int number, std::string_view suffix) {
    return DeskFiles::digestOf(std::to_string(number)) + std::string(suffix);
  }
  std::filesystem::path pathOf(const std::string& name) const {
    return std::filesystem::path(files.directory()) / name;
  }
  bool has(const std::string& name) const { return std::filesystem::exists(pathOf(name)); }

  void plant(const std::string& name, long age, std::size_t size = 0) {
    ASSERT_EQ(files.write(name, std::string(size, 'x'), {}), 0);
    const timespec then{Time::now().seconds() - age, 0};
    const timespec times[2] = {then, then};
    ASSERT_EQ(::utimensat(AT_FDCWD, pathOf(name).c_str(), times, 0), 0);
  }

  const TempDir cache;
  const DeskFiles files{cache.string(), {.files = 16, .bytes = 1600}};
};

TEST(DeskFiles, Limits_AreFourThousandFilesAndAQuarterOfAGibibyte) {
  EXPECT_EQ(DeskFiles::Limits().files, 4096U);
  EXPECT_EQ(DeskFiles::Limits().bytes, 268435456U);
}

TEST(DeskFiles, DigestOfAPlace_IsItsSHA256) {
  EXPECT_EQ(DeskFiles::digestOf("abc"),  // FIPS 180-4
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(DeskFilesTest, WhatIsWritten_IsReadAgainUpToALimit) {
  EXPECT_FALSE(files.read("a", 10));
  EXPECT_FALSE(std::filesystem::exists(files.directory())) << "reading makes nothing";
  EXPECT_EQ(files.write("a", "head", "rest"), 0);
  EXPECT_EQ(files.read("a", 8), "headrest");
  EXPECT_FALSE(files.read("a", 7));
  EXPECT_EQ(files.write("a", "", ""), 0);
  EXPECT_EQ(files.read("a", 8), "");
  files.remove("a");
  EXPECT_FALSE(files.read("a", 8));
  EXPECT_TRUE(std::filesystem::is_empty(files.directory()));
}

TEST_F(DeskFilesTest, WhatIsNoRegularFile_IsNotRead) {
  ASSERT_EQ(files.write("target", "x", ""), 0);
  std::filesystem::create_symlink("target", pathOf("link"));
  std::filesystem::create_directory(pathOf("directory"));
  ASSERT_EQ(::mkfifo(pathOf("fifo").c_str(), 0600), 0);
  for (const char* const name : {"link", "directory", "fifo"}) {
    EXPECT_FALSE(files.read(name, 10)) << name;
  }
  int error = 0;
  EXPECT_EQ(files.lock("link", error), nullptr);
  EXPECT_EQ(error, ELOOP);
}

TEST_F(DeskFilesTest, Directory_IsForThoseWhoMayWriteTheCache) {
  const struct {
    mode_t cache;
    mode_t own;
  } rows[] = {{0755, 0700}, {0775, 0770}, {0777, 0777}, {01777, 01777}, {0750, 0700}};
  for (const auto& row : rows) {
    ASSERT_EQ(::chmod(cache.path().c_str(), row.cache), 0);
    ASSERT_EQ(files.write("a", "", ""), 0);
    struct stat status = {};
    ASSERT_EQ(::stat(files.directory().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, row.own) << std::oct << row.cache;
    std::filesystem::remove_all(files.directory());
  }
}

TEST_F(DeskFilesTest, LinkInThePlaceOfTheDirectory_IsNotFollowed) {
  const TempDir elsewhere;
  std::filesystem::create_directory_symlink(elsewhere.path(), files.directory());
  EXPECT_NE(files.write("a", "x", ""), 0);
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere.path()));
}

TEST_F(DeskFilesTest, NoCache_IsAnError) {
  const DeskFiles none((cache / "missing").string());
  EXPECT_EQ(none.write("a", "x", ""), ENOENT);
  int error = 0;
  EXPECT_EQ(none.lock("a", error), nullptr);
  EXPECT_EQ(error, ENOENT);
  none.makeRoom(1);
}

TEST_F(DeskFilesTest, WhatNobodyNeedsAnyMore_GoesWheneverRoomIsMade) {
  const std::string leftover = nameOf(1, DeskFiles::kMark) + "-tmp-0123456789abcdef";
  const std::string fresh = nameOf(2, DeskFiles::kMark) + "-tmp-0123456789abcdef";
  plant(leftover, 100);
  plant(fresh, 0);
  plant(nameOf(1, DeskFiles::kDelivery), 100);
  plant(nameOf(2, DeskFiles::kDelivery), 20);
  plant(nameOf(3, DeskFiles::kDelivery), -100);
  plant(nameOf(1, DeskFiles::kMark), 100'000);
  plant(nameOf(1, DeskFiles::kLock), 100'000);
  plant("somebody-else's", 100'000);
  files.makeRoom(0);
  EXPECT_FALSE(has(leftover));
  EXPECT_TRUE(has(fresh));
  EXPECT_FALSE(has(nameOf(1, DeskFiles::kDelivery)));
  EXPECT_TRUE(has(nameOf(2, DeskFiles::kDelivery)));
  EXPECT_FALSE(has(nameOf(3, DeskFiles::kDelivery))) << "from the future";
  EXPECT_TRUE(has(nameOf(1, DeskFiles::kMark)));
  EXPECT_TRUE(has(nameOf(1, DeskFiles::kLock)));
  EXPECT_TRUE(has("somebody-else's"));
}

TEST_F(DeskFilesTest, TooManyFiles_TheOldestGoButLocksThatAreHeld) {
  for (int i = 0; i < 12; ++i) {
    plant(nameOf(i, i % 2 == 0 ? DeskFiles::kLock : DeskFiles::kMark), 1000 - i);
  }
  files.makeRoom(0);
  EXPECT_TRUE(has(nameOf(0, DeskFiles::kLock))) << "three quarters are not too many";
  plant(nameOf(12, DeskFiles::kMark), 0);
  int error = 0;
  const auto held = files.lock(nameOf(0, DeskFiles::kLock), error);
  ASSERT_EQ(held->take(), 0);
  files.makeRoom(0);
  EXPECT_TRUE(has(nameOf(0, DeskFiles::kLock)));
  EXPECT_FALSE(has(nameOf(1, DeskFiles::kMark)));
  EXPECT_FALSE(has(nameOf(2, DeskFiles::kLock)));
  EXPECT_TRUE(has(nameOf(3, DeskFiles::kMark)));
}

TEST_F(DeskFilesTest, TooManyOctets_TheOldestDeliveriesGo) {
  plant(nameOf(0, DeskFiles::kMark), 1000, 10);
  plant(nameOf(0, DeskFiles::kLock), 1000);
  for (int i = 0; i < 5; ++i) plant(nameOf(i, DeskFiles::kDelivery), 20 - i, 200);
  files.makeRoom(190);
  EXPECT_TRUE(has(nameOf(0, DeskFiles::kDelivery)));
  files.makeRoom(191);
  EXPECT_FALSE(has(nameOf(0, DeskFiles::kDelivery)));
  EXPECT_TRUE(has(nameOf(1, DeskFiles::kDelivery)));
  EXPECT_TRUE(has(nameOf(0, DeskFiles::kMark)));
  EXPECT_TRUE(has(nameOf(0, DeskFiles::kLock)));
}

}  // namespace
}  // namespace Velantrix::Test
