#include "foundation/base/FileStamp.h"
#include "store/DirectoryIndex.h"
#include "support/Files.h"
#include "unit/store/NamesIn.h"

#include <pkx509/FileCache.h>

#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::DirectoryIndex;
using Crypto::PKX509::FileCache;
using Crypto::PKX509::HashNames;

class DirectoryIndexTest : public testing::Test {
 protected:
  ~DirectoryIndexTest() override { FileCache::limit(FileCache::kDefaultLimit); }

  std::shared_ptr<const DirectoryIndex> index() const {
    return DirectoryIndex::of(directory.string(), *FileStamp::at(directory.string().c_str()));
  }
  std::vector<std::string> names(unsigned int number) const {
    std::vector<std::string> texts;
    for (const HashNames::Name& name : namesIn(directory.string(), number).all) {
      texts.push_back(name.text);
    }
    return texts;
  }
  void write(const std::string& name) const { writeFile(directory / name, ""); }
  // So that the next state of the directory has another time, whatever the clock's tick.
  void change(std::time_t time) const {
    const timespec times[] = {{time, 0}, {time, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, directory.string().c_str(), times, 0), 0);
  }

  TempDir directory;
};

// The times of all that has happened since 2024.
constexpr std::chrono::hours kTick{24 * 10000};

TEST_F(DirectoryIndexTest, DirectoryWithTheStampOfBefore_IsNotListed) {
  const CoarseStamps coarse(kTick);
  write("1.r0");
  const auto first = index();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(names(1), (std::vector<std::string>{"1.r0"}));
  // Nothing of this shows in the stamp.
  std::filesystem::rename(directory / "1.r0", directory / "1.r1");
  EXPECT_EQ(index(), first);
  EXPECT_EQ(names(1), (std::vector<std::string>{"1.r0"}));
  FileCache::clear();
  EXPECT_EQ(names(1), (std::vector<std::string>{"1.r1"}));
}

TEST_F(DirectoryIndexTest, DirectoryThatChanges_IsListedAnew) {
  const StampClockAhead settled(3s);
  write("1.0");
  change(1000);
  const auto first = index();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(index(), first);
  write("1.1");
  change(2000);
  EXPECT_EQ(names(1), (std::vector<std::string>{"1.0", "1.1"}));
  EXPECT_NE(index(), first);
  std::filesystem::remove(directory / "1.0");
  change(1000);
  EXPECT_EQ(names(1), (std::vector<std::string>{"1.1"}));
}

TEST_F(DirectoryIndexTest, DirectoryThatHasJustChanged_HasNone) {
  write("1.0");
  EXPECT_EQ(index(), nullptr);
  EXPECT_EQ(names(1), (std::vector<std::string>{"1.0"}));
  const StampClockAhead settled(3s);
  EXPECT_NE(index(), nullptr);
}

TEST_F(DirectoryIndexTest, DirectoryOfAProgramsFileSystem_HasNone) {
  const StampClockAhead settled(3s);
  EXPECT_EQ(DirectoryIndex::of("/proc/self/task", *FileStamp::at("/proc/self/task")), nullptr);
}

TEST_F(DirectoryIndexTest, Names_AreThoseOfAListing) {
  for (const char* const number :
       {"1", "01", "00000001", " 1", "A", "a", "0a", "ffffffff", "r", ""}) {
    for (const char* const suffix : {".0", ".1", ".r0", ".", ".S", "", "x.0"}) {
      const std::string name = std::string(number) + suffix;
      if (!name.empty() && name != ".") write(name);
    }
  }
  std::filesystem::create_symlink("1.0", directory / "1.2");
  std::filesystem::create_directory(directory / "1.3");
  for (unsigned int number = 0xffffffff; number != 200; ++number) {
    FileCache::clear();
    const std::vector<HashNames::Name> listed = namesIn(directory.string(), number).all;
    const StampClockAhead settled(3s);
    const auto made = index();
    ASSERT_NE(made, nullptr);
    const std::vector<HashNames::Name> indexed = made->names(number);
    ASSERT_EQ(indexed.size(), listed.size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
      EXPECT_EQ(indexed[i].text, listed[i].text);
      EXPECT_EQ(indexed[i].regular, listed[i].regular);
    }
  }
}

TEST_F(DirectoryIndexTest, DirectoryThatIsTooLarge_HasNone) {
  const StampClockAhead settled(3s);
  for (int i = 0; i < 200; ++i) write(std::to_string(i) + ".0");
  ASSERT_NE(index(), nullptr);
  const std::size_t size = index()->memory();
  EXPECT_GT(size, 200 * 12U);
  FileCache::clear();
  FileCache::limit(size / 2 * DirectoryIndex::kSmallestPart);
  EXPECT_EQ(index(), nullptr);
  EXPECT_EQ(names(0x100), (std::vector<std::string>{"100.0"}));
  // That it is too large is known until it changes.
  EXPECT_EQ(FileCache::usage().files, 1U);
  FileCache::limit(0);
  EXPECT_EQ(index(), nullptr);
  EXPECT_EQ(names(0x100), (std::vector<std::string>{"100.0"}));
}

}  // namespace
}  // namespace Velantrix::Test
