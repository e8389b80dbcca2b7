#include "support/Files.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

TEST(TempDir, ScopeEnds_DirectoryAndContentAreGone) {
  std::filesystem::path path;
  {
    const TempDir directory;
    path = directory.path();
    std::filesystem::create_directories(directory / "a/b");
    writeFile(directory / "a/b/c", "text");
    std::filesystem::permissions(directory / "a", std::filesystem::perms::none);
    EXPECT_TRUE(std::filesystem::exists(path));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Files, BytesWritten_AreReadBack) {
  const TempDir directory;
  const std::string bytes("a\0\xff\n", 4);
  writeFile(directory / "file", bytes);
  EXPECT_EQ(readFile(directory / "file"), bytes);
}

TEST(Files, MissingFileOrDirectory_Throws) {
  const TempDir directory;
  EXPECT_THROW(readFile(directory / "none"), std::runtime_error);
  EXPECT_THROW(writeFile(directory / "none/file", "x"), std::runtime_error);
}

}  // namespace
}  // namespace Velantrix::Test
