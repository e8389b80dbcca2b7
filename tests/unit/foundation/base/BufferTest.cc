#include <velantrix/Buffer.h>
#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace {

using Velantrix::Buffer;

std::string text(const Buffer& buffer) {
  return std::string(buffer.data(), buffer.data() + buffer.length());
}

TEST(Buffer, Buffer_Default_IsEmpty) {
  const Buffer buffer;
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.length(), 0U);
}

TEST(Buffer, Buffer_Copy_IsIndependentOfTheSource) {
  std::string source("some\0bytes", 10);
  const Buffer buffer(source.data(), 10, true);
  source.assign(10, 'x');
  EXPECT_EQ(text(buffer), std::string("some\0bytes", 10));
  EXPECT_NE(static_cast<const void*>(buffer.data()), source.data());
}

TEST(Buffer, Buffer_Borrow_ReadsTheSourceItself) {
  const std::string source("bytes");
  const Buffer buffer(source.data(), 5, false);
  const Buffer copy(buffer);
  EXPECT_EQ(static_cast<const void*>(buffer.data()), source.data());
  EXPECT_EQ(static_cast<const void*>(copy.data()), source.data());
}

TEST(Buffer, Buffer_CopyOfACopy_OutlivesTheOriginal) {
  auto original = std::make_unique<Buffer>("bytes", 5, true);
  const Buffer copy(*original);
  Buffer assigned;
  assigned = *original;
  original.reset();
  EXPECT_EQ(text(copy), "bytes");
  EXPECT_EQ(text(assigned), "bytes");
}

TEST(Buffer, Buffer_NullWithLength_Throws) {
  EXPECT_THROW(Buffer(nullptr, 1, true), Velantrix::Exception);
  EXPECT_THROW(Buffer(nullptr, 1, false), Velantrix::Exception);
  EXPECT_TRUE(Buffer(nullptr, 0, true).empty());
  EXPECT_TRUE(Buffer("x", 0, true).empty());
}

}  // namespace
