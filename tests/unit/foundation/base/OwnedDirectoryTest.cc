#include "foundation/base/OwnedDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

TEST(OwnedDirectory, EndOfItsScope_ClosesIt) {
  int descriptor = -1;
  {
    const OwnedDirectory directory(::opendir("/"));
    ASSERT_NE(directory, nullptr);
    descriptor = ::dirfd(directory.get());
    EXPECT_NE(::fcntl(descriptor, F_GETFD), -1);
  }
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST(OwnedDirectory, DirectoryThatCannotBeOpened_IsNone) {
  const OwnedDirectory directory(::opendir("/dev/null"));
  EXPECT_EQ(directory, nullptr);
}

}  // namespace
}  // namespace Velantrix::Test
