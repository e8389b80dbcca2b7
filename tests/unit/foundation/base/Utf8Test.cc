#include "foundation/base/Utf8.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_view_literals;
using Velantrix::firstUtf8Character;
using Velantrix::isBidiControl;
using Velantrix::isControlCharacter;
using Velantrix::isUnfitToShow;
using Velantrix::Utf8Character;

static_assert(firstUtf8Character("a").value == U'a', "is to be had at compile time");

struct Row {
  const char* name;
  std::string_view text;
  std::optional<char32_t> value;
  std::size_t length;
};

TEST(Utf8, FirstCharacter_WellFormed_IsDecodedWithItsLength) {
  const std::vector<Row> rows = {
      {"NUL", "\0x"sv, 0, 1},
      {"ASCII, last", "\x7f\x80", 0x7f, 1},
      {"two octets, first", "\xc2\x80z", 0x80, 2},
      {"two octets, last", "\xdf\xbfz", 0x7ff, 2},
      {"three octets, first", "\xe0\xa0\x80z", 0x800, 3},
      {"three octets, before the surrogates", "\xed\x9f\xbf", 0xd7ff, 3},
      {"three octets, after the surrogates", "\xee\x80\x80", 0xe000, 3},
      {"three octets, last", "\xef\xbf\xbf", 0xffff, 3},
      {"four octets, first", "\xf0\x90\x80\x80z", 0x10000, 4},
      {"four octets, last", "\xf4\x8f\xbf\xbf", 0x10ffff, 4},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Utf8Character character = firstUtf8Character(row.text);
    EXPECT_EQ(character.value, row.value);
    EXPECT_EQ(character.length, row.length);
  }
}

TEST(Utf8, FirstCharacter_IllFormed_IsNoneAndTakesOneOctet) {
  const std::vector<Row> rows = {
      {"continuation", "\x80", {}, 1},
      {"continuation, last", "\xbf\xbf", {}, 1},
      {"overlong NUL", "\xc0\x80", {}, 1},
      {"overlong in two", "\xc1\xbf", {}, 1},
      {"overlong in three", "\xe0\x9f\xbf", {}, 1},
      {"overlong in four", "\xf0\x8f\xbf\xbf", {}, 1},
      {"surrogate, first", "\xed\xa0\x80", {}, 1},
      {"surrogate, last", "\xed\xbf\xbf", {}, 1},
      {"beyond Unicode", "\xf4\x90\x80\x80", {}, 1},
      {"lead of beyond Unicode", "\xf5\x80\x80\x80", {}, 1},
      {"five octets", "\xf8\x88\x80\x80\x80", {}, 1},
      {"no lead at all", "\xff", {}, 1},
      {"cut off after one", "\xe2", {}, 1},
      {"cut off after two", "\xe2\x82", {}, 1},
      {"cut off after three", "\xf0\x9f\x98", {}, 1},
      {"second is none", "\xc3z", {}, 1},
      {"third is none", "\xe2\x82\xc0", {}, 1},
      {"fourth is none", "\xf0\x9f\x98\x7f", {}, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Utf8Character character = firstUtf8Character(row.text);
    EXPECT_EQ(character.value, row.value);
    EXPECT_EQ(character.length, row.length);
  }
}

TEST(Utf8, FirstCharacter_OfNothing_IsNoneAndTakesNothing) {
  EXPECT_EQ(firstUtf8Character("").value, std::nullopt);
  EXPECT_EQ(firstUtf8Character("").length, 0U);
}

TEST(Utf8, IsControlCharacter_C0DelAndC1_NothingBeside) {
  for (const char32_t control : {U'\x00', U'\x1f', U'\x7f', U'\x80', U'\x9f'}) {
    EXPECT_TRUE(isControlCharacter(control)) << static_cast<std::uint32_t>(control);
  }
  for (const char32_t other : {U' ', U'~', U'\xa0', U'\u2028', U'\u202e'}) {
    EXPECT_FALSE(isControlCharacter(other)) << static_cast<std::uint32_t>(other);
  }
}

TEST(Utf8, IsBidiControl_TheTwelve_NothingBeside) {
  unsigned int found = 0;
  for (char32_t character = 0; character <= 0x10ffff; ++character) {
    if (isBidiControl(character)) ++found;
  }
  EXPECT_EQ(found, 12U);
  for (const char32_t control :
       {U'\u061c', U'\u200e', U'\u200f', U'\u202a', U'\u202e', U'\u2066', U'\u2069'}) {
    EXPECT_TRUE(isBidiControl(control)) << static_cast<std::uint32_t>(control);
  }
}

TEST(Utf8, IsUnfitToShow_WhatEndsDrivesHidesOrReorders_NothingBeside) {
  const struct {
    char32_t first;
    char32_t last;
  } unfit[] = {{0, 0x1f},        {0x7f, 0x9f},     {0x61c, 0x61c},   {0x200b, 0x200f},
               {0x2028, 0x202e}, {0x2060, 0x206f}, {0xfeff, 0xfeff}, {0xe0000, 0xe007f}};
  for (char32_t character = 0; character <= 0x10ffff; ++character) {
    bool expected = false;
    for (const auto& [first, last] : unfit) {
      expected = expected || (first <= character && character <= last);
    }
    ASSERT_EQ(isUnfitToShow(character), expected) << static_cast<std::uint32_t>(character);
  }
}

}  // namespace
