#include "foundation/base/FileDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

int opened() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

TEST(FileDescriptor, Default_IsNone) {
  const FileDescriptor none;
  EXPECT_FALSE(none.valid());
  EXPECT_EQ(none.get(), -1);
}

TEST(FileDescriptor, EndOfItsScope_ClosesIt) {
  const int number = opened();
  {
    const FileDescriptor owner(number);
    EXPECT_TRUE(owner.valid());
    EXPECT_EQ(owner.get(), number);
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

// 0 is a descriptor like any other.
TEST(FileDescriptor, StandardInput_IsValid) {
  FileDescriptor owner(0);
  EXPECT_TRUE(owner.valid());
  EXPECT_EQ(owner.release(), 0);
}

TEST(FileDescriptor, Released_StaysOpenAndLeavesNone) {
  const int number = opened();
  {
    FileDescriptor owner(number);
    EXPECT_EQ(owner.release(), number);
    EXPECT_FALSE(owner.valid());
  }
  EXPECT_TRUE(isOpen(number));
  EXPECT_EQ(::close(number), 0);
}

TEST(FileDescriptor, Moved_HasOneOwner) {
  const int number = opened();
  {
    FileDescriptor first(number);
    const FileDescriptor second(std::move(first));
    EXPECT_EQ(second.get(), number);
    EXPECT_EQ(first.get(), -1);  // NOLINT(bugprone-use-after-move): that is what is tested
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptor, Assigned_ClosesWhatItOwned) {
  const int old = opened();
  const int number = opened();
  FileDescriptor target(old);
  target = FileDescriptor(number);
  EXPECT_EQ(target.get(), number);
  EXPECT_FALSE(isOpen(old));
  EXPECT_TRUE(isOpen(number));
  target = FileDescriptor();
  EXPECT_FALSE(target.valid());
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptor, AssignedToItself_KeepsIt) {
  const int number = opened();
  FileDescriptor owner(number);
  FileDescriptor& same = owner;
  owner = std::move(same);
  EXPECT_EQ(owner.get(), number);
  EXPECT_TRUE(isOpen(number));
}

TEST(FileDescriptor, SystemErrorText_IsPathAndReason) {
  EXPECT_EQ(systemErrorText("/a/b", EACCES), "/a/b: Permission denied");
}

TEST(FileDescriptor, SystemPath_IsBorrowedAndWithoutNul) {
  const std::string path = "/a/b";
  EXPECT_EQ(systemPath(path), path.c_str());
  for (const std::string& cut : {"\0"s, "/a\0b"s, "/a\0"s}) {
    try {
      systemPath(cut);
      ADD_FAILURE() << "taken";
    } catch (const Exception& e) {
      EXPECT_EQ(e.context(), "File::Path");
      EXPECT_EQ(e.code(), Exception::kFailure);
      EXPECT_NE(e.stringParameter().find("NUL"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace Velantrix::Test
