#include "foundation/base/TemporaryName.h"

#include <gtest/gtest.h>
#include <string_view>

namespace Velantrix::Test {
namespace {

using namespace std::string_view_literals;

TEST(TemporaryName, Suffix_IsTheMarkAndSixteenLowerCaseDigits) {
  const struct {
    std::string_view text;
    bool suffix;
  } rows[] = {
      {"-tmp-0123456789abcdef", true},
      {"-tmp-0000000000000000", true},
      {"", false},
      {"-tmp-", false},
      {"-tmp-0123456789abcde", false},
      {"-tmp-0123456789abcdef0", false},
      {"-tmp-0123456789ABCDEF", false},
      {"-tmp-0123456789abcdeg", false},
      {"-tmp-g123456789abcdef", false},
      {"-tmp-0123456789abcde\0"sv, false},
      {"-tmp-0123456789abcde\n", false},
      {"-tmp_0123456789abcdef", false},
      {"-TMP-0123456789abcdef", false},
      {"0123456789abcdef-tmp-", false},
      // A target's name stands in front of it, which is not looked for here.
      {"a-tmp-0123456789abcdef", false},
  };
  for (const auto& row : rows) EXPECT_EQ(isTemporarySuffix(row.text), row.suffix) << row.text;
}

TEST(TemporaryName, NewSuffix_IsOneAndAnotherEachTime) {
  const std::string suffix = newTemporarySuffix();
  EXPECT_TRUE(isTemporarySuffix(suffix)) << suffix;
  EXPECT_NE(newTemporarySuffix(), suffix);
}

}  // namespace
}  // namespace Velantrix::Test
