#include "foundation/base/Hex.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;

struct Row {
  std::string octets;
  char separator;
  const char* text;
};

TEST(Hex, Text_TwoUpperCaseDigitsAnOctetAndSeparatorsBetween) {
  const Row rows[] = {
      {"", '\0', ""},
      {"", ':', ""},
      {"\x0a", ':', "0A"},
      {"\x00\x09\x10\x7f\x80\xff"s, '\0', "0009107F80FF"},
      {"\xde\xad\xbe\xef", ':', "DE:AD:BE:EF"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(hexText(reinterpret_cast<const unsigned char*>(row.octets.data()), row.octets.size(),
                      row.separator),
              row.text);
  }
}

TEST(Hex, AppendHex_LeavesWhatIsThere) {
  std::string text = "\\";
  appendHex(text, 0x1b);
  EXPECT_EQ(text, "\\1B");
}

TEST(Hex, EveryOctet_IsReadBack) {
  for (int octet = 0; octet < 256; ++octet) {
    std::string text;
    appendHex(text, static_cast<unsigned char>(octet));
    ASSERT_EQ(text.size(), 2U);
    EXPECT_EQ(hexValue(text[0]) * 16 + hexValue(text[1]), octet);
  }
}

TEST(Hex, Value_OfADigitInEitherCaseAndOfNothingElse) {
  constexpr std::string_view kLower = "0123456789abcdef";
  constexpr std::string_view kUpper = "0123456789ABCDEF";
  for (int number = 0; number < 256; ++number) {
    const char c = static_cast<char>(number);
    const std::size_t at = std::min(kLower.find(c), kUpper.find(c));
    EXPECT_EQ(hexValue(c), at == std::string_view::npos ? -1 : static_cast<int>(at)) << number;
  }
}

}  // namespace
}  // namespace Velantrix::Test
