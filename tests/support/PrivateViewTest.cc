#include "support/Command.h"
#include "support/Files.h"
#include "support/PrivateView.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace Velantrix::Test {
namespace {

constexpr const char* kDirectories[] = {kCADirectory, kCRLDirectory, kAppsDirectory,
                                        kCRLCacheDirectory};
constexpr char kLeft[] = "left-by-private-view-test";

TEST(PrivateView, FixedDirectories_AreThereAndEmpty) {
  EXPECT_TRUE(inPrivateView());
  for (const char* directory : kDirectories) {
    EXPECT_TRUE(std::filesystem::is_directory(directory)) << directory;
    EXPECT_TRUE(std::filesystem::is_empty(directory)) << directory;
  }
}

TEST(PrivateView, WhatOneTestWrites_TheNextDoesNotSee) {
  // Written under one name by both of these tests: whichever comes second would find it.
  for (const char* directory : kDirectories) {
    const auto file = std::filesystem::path(directory) / kLeft;
    EXPECT_FALSE(std::filesystem::exists(file)) << file;
    writeFile(file, "x");
  }
}

TEST(PrivateView, WhatOneTestWrites_TheNextDoesNotSeeEither) {
  for (const char* directory : kDirectories) {
    const auto file = std::filesystem::path(directory) / kLeft;
    EXPECT_FALSE(std::filesystem::exists(file)) << file;
    writeFile(file, "x");
  }
}

TEST(PrivateView, TheMachine_IsReadOnly) {
  EXPECT_THROW(writeFile("/etc/left-by-private-view-test", "x"), std::runtime_error);
  EXPECT_THROW(writeFile("/usr/left-by-private-view-test", "x"), std::runtime_error);
  EXPECT_THROW(writeFile("/var/log/left-by-private-view-test", "x"), std::runtime_error);
}

TEST(PrivateView, TemporaryDirectory_IsWritable) {
  const TempDir directory;
  writeFile(directory / "file", "x");
  EXPECT_EQ(readFile(directory / "file"), "x");
}

TEST(PrivateView, WorkingDirectoryInTheBuildTree_IsWritable) {
  const auto file = std::filesystem::current_path() / (std::to_string(getpid()) + ".tmp");
  writeFile(file, "x");
  EXPECT_TRUE(std::filesystem::remove(file));
}

TEST(PrivateView, ClearPrivateView_EmptiesTheDirectories) {
  writeFile(std::filesystem::path(kCADirectory) / "a.0", "x");
  std::filesystem::create_directories(std::filesystem::path(kCRLCacheDirectory) / "a/b");
  clearPrivateView();
  for (const char* directory : kDirectories) {
    EXPECT_TRUE(std::filesystem::is_empty(directory)) << directory;
  }
}

TEST(PrivateView, CommandRunInTheView_SeesTheSameDirectories) {
  writeFile(std::filesystem::path(kCRLDirectory) / "seen", "text");
  EXPECT_EQ(runCommand({"cat", std::string(kCRLDirectory) + "/seen"}).out, "text");
}

}  // namespace
}  // namespace Velantrix::Test
