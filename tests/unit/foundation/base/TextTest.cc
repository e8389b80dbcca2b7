#include "foundation/base/Text.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::cutText;
using Velantrix::escapeControls;

struct CutRow {
  const char* name;
  std::string text;
  std::size_t limit;
  std::string expected;
};

TEST(Text, CutText_Limit_NeverSplitsACharacter) {
  const std::vector<CutRow> rows = {
      {"shorter", "abc", 4, "abc"},
      {"as long", "abc", 3, "abc"},
      {"ASCII", "abcd", 3, "abc"},
      {"nothing", "abc", 0, ""},
      {"inside two bytes", "a\u00e4", 2, "a"},
      {"after two bytes", "a\u00e4b", 3, "a\u00e4"},
      {"inside four bytes, after one", "a\U0001F600", 2, "a"},
      {"inside four bytes, after three", "a\U0001F600", 4, "a"},
      {"begins inside a character", "\u00e4", 1, ""},
      {"not UTF-8", "\x80\x80\x80\x80\x80\x80\x80\x80", 6, "\x80\x80\x80\x80\x80\x80"},
      {"not UTF-8, short", "\x80\x80\x80", 2, "\x80\x80"},
  };
  for (const CutRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(cutText(row.text, row.limit), row.expected);
  }
}

TEST(Text, EscapeControls_AnyControl_IsWrittenAsHex) {
  EXPECT_EQ(escapeControls("a\nb\r\x01\x1f\x7f z\0y"s, 100), "a\\0Ab\\0D\\01\\1F\\7F z\\00y");
  EXPECT_EQ(escapeControls("\u00fc \\ ~", 100), "\u00fc \\ ~");
  EXPECT_EQ(escapeControls("ab~\x7f", 100), "ab~\\7F");
}

TEST(Text, EscapeControls_WhatHidesOrReorders_IsWrittenAsHexOctetByOctet) {
  EXPECT_EQ(escapeControls("a\u200bb\u202ec\u2028d\ufeff\u0085", 100),
            "a\\E2\\80\\8Bb\\E2\\80\\AEc\\E2\\80\\A8d\\EF\\BB\\BF\\C2\\85");
  EXPECT_EQ(escapeControls("\u2030\u3000\U0001F600", 100), "\u2030\u3000\U0001F600");
}

TEST(Text, EscapeControls_NotUtf8_StaysAsItIs) {
  const std::string octets = "\xff\xc0\xaf\xed\xa0\x80\xe2\x80";
  EXPECT_EQ(escapeControls(octets, 100), octets);
  EXPECT_EQ(escapeControls("\xe2\x80\n", 100), "\xe2\x80\\0A");
}

TEST(Text, EscapeControls_Limit_SplitsNeitherEscapeNorCharacter) {
  const std::vector<CutRow> rows = {
      {"escape fits", "ab\n", 5, "ab\\0A"},
      {"escape does not fit", "ab\n", 4, "ab"},
      {"character fits", "ab\u00e4c", 4, "ab\u00e4"},
      {"character does not fit", "ab\u00e4", 3, "ab"},
      {"escape at the limit", "\u00e4\n", 2, "\u00e4"},
      {"exact", "abc", 3, "abc"},
      {"nothing", "", 0, ""},
      {"plain", "abcd", 3, "abc"},
      {"plain before an escape", "abcd\n", 3, "abc"},
      {"plain up to an escape", "abcd\n", 4, "abcd"},
      {"escapes of one character fit", "a\u200b", 10, "a\\E2\\80\\8B"},
      {"escapes of one character do not fit", "a\u200b", 9, "a"},
  };
  for (const CutRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(escapeControls(row.text, row.limit), row.expected);
  }
}

}  // namespace
