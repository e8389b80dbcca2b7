#include <velantrix/EmailAddress.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::EmailAddress;

TEST(EmailAddress, EmailAddress_Text_IsKeptUnchanged) {
  for (const char* text :
       {"a@b", "Some.One@Example.COM", "\"a@b\"@example.com", "\u00e4@example.com"}) {
    const EmailAddress address{std::string(text)};
    EXPECT_FALSE(address.isNull()) << text;
    EXPECT_EQ(address.address(), text);
  }
}

TEST(EmailAddress, EmailAddress_NoAddress_IsNull) {
  const std::vector<std::string> rows = {"",      "a",       "@",      "a@",      "@b",   "a@b@",
                                         "a\n@b", "a@b\r\n", "a\0@b"s, "a@b\x7f", "a@\tb"};
  for (const std::string& row : rows) {
    const EmailAddress address(row);
    EXPECT_TRUE(address.isNull()) << testing::PrintToString(row);
    EXPECT_EQ(address.address(), "");
    EXPECT_EQ(address, EmailAddress());
  }
}

TEST(EmailAddress, Equality_Case_Matters) {
  EXPECT_EQ(EmailAddress("a@b"), EmailAddress("a@b"));
  EXPECT_NE(EmailAddress("a@b"), EmailAddress("A@b"));
}

}  // namespace
