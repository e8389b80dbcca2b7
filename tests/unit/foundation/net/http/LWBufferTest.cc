#include <velantrix/Exception.h>
#include <velantrix/LWBuffer.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

std::string text(const LW::Buffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

TEST(LWBuffer, Default_HasNoMemoryYet) {
  const LW::Buffer buffer;
  EXPECT_EQ(buffer.data(), nullptr);
  EXPECT_EQ(buffer.length(), 0U);
  EXPECT_EQ(buffer.capacity(), 0U);
}

TEST(LWBuffer, Size_IsRoomAndNotLength) {
  LW::Buffer buffer(5);
  ASSERT_NE(buffer.data(), nullptr);
  EXPECT_EQ(buffer.capacity(), 5U);
  EXPECT_EQ(buffer.length(), 0U);
  std::memcpy(buffer.data(), "bytes", 5);
  buffer.length(5);
  EXPECT_EQ(text(buffer), "bytes");
  buffer.length(3);
  EXPECT_EQ(text(buffer), "byt");
}

TEST(LWBufferDeathTest, LengthAboveTheRoom_StopsTheProcess) {
  LW::Buffer buffer(5);
  EXPECT_DEATH(buffer.length(6), "Assertion `bytes <= capacity_' failed");
}

TEST(LWBuffer, Append_AddsAtTheEndWithZeroBytes) {
  using namespace std::string_literals;
  LW::Buffer buffer(4);
  for (const std::string& part : {"a\0b"s, ""s, "cdef"s}) buffer.append(part.data(), part.size());
  EXPECT_EQ(text(buffer), "a\0bcdef"s);
  buffer.append(nullptr, 0);
  EXPECT_EQ(text(buffer), "a\0bcdef"s);
}

TEST(LWBuffer, AppendWithinTheRoom_MovesNothing) {
  LW::Buffer buffer(8);
  const unsigned char* const before = buffer.data();
  buffer.append("12345678", 8);
  EXPECT_EQ(buffer.data(), before);
  EXPECT_EQ(buffer.capacity(), 8U);
}

// What a download costs: few moves however small the pieces, and room for little more than came.
TEST(LWBuffer, AppendOfMany_GrowsInFewStepsAndByHalf) {
  LW::Buffer buffer;
  constexpr std::size_t kTotal = std::size_t{4} * 1024 * 1024;
  const std::vector<unsigned char> piece(1000, 0x5a);
  std::size_t steps = 0;
  for (std::size_t capacity = 0; buffer.length() < kTotal;) {
    buffer.append(piece.data(), piece.size());
    ASSERT_LE(buffer.length(), buffer.capacity());
    if (buffer.capacity() == capacity) continue;
    capacity = buffer.capacity();
    ++steps;
    ASSERT_LE(capacity, buffer.length() + buffer.length() / 2 + 4096);
  }
  EXPECT_LE(steps, 24U);
  EXPECT_TRUE(std::all_of(buffer.data(), buffer.data() + buffer.length(),
                          [](unsigned char byte) { return byte == 0x5a; }));
}

TEST(LWBuffer, AppendOfOneLargePiece_MakesRoomForIt) {
  LW::Buffer buffer;
  const std::string large(100'000, 'x');
  buffer.append(large.data(), large.size());
  EXPECT_EQ(text(buffer), large);
  EXPECT_EQ(buffer.capacity(), large.size());
}

TEST(LWBuffer, Clear_GivesTheMemoryBackAndTheBufferCanBeFilledAgain) {
  LW::Buffer buffer(5);
  buffer.append("bytes", 5);
  buffer.clear();
  EXPECT_EQ(buffer.data(), nullptr);
  EXPECT_EQ(buffer.length(), 0U);
  EXPECT_EQ(buffer.capacity(), 0U);
  buffer.append("again", 5);
  EXPECT_EQ(text(buffer), "again");
}

TEST(RefBuffer, Size_MakesABufferThatCopiesShare) {
  const LW::RefBuffer buffer(16);
  EXPECT_EQ(buffer->capacity(), 16U);
  LW::RefBuffer copy(buffer);
  copy->append("shared", 6);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->data()), buffer->length()), "shared");
}

TEST(RefBuffer, Empty_ThrowsWhenDereferenced) {
  const LW::RefBuffer none;
  EXPECT_TRUE(none.empty());
  EXPECT_THROW(static_cast<void>(none->length()), Exception);
}

}  // namespace
}  // namespace Velantrix::Test
