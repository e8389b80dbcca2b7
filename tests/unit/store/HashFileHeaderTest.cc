#include "store/HashFileHeader.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::HashFileHeader;

TEST(HashFileHeader, Text_IsTwoLinesInThisOrder) {
  EXPECT_EQ(HashFileHeader::text("http://ca.example/ca.crl", Time::then(1795132800, true)),
            "URI: http://ca.example/ca.crl\nExpires: 1795132800\n");
}

TEST(HashFileHeader, Text_IsReadBack) {
  for (const long seconds : {0L, 1L, -1L, 1795132800L, std::numeric_limits<long>::max(),
                             std::numeric_limits<long>::min()}) {
    const Time expires = Time::then(seconds, true);
    const std::string text =
        HashFileHeader::text("http://ca.example/?a=b#c", expires) + "-----BEGIN";
    const HashFileHeader header = HashFileHeader::parse(text);
    EXPECT_EQ(header.uri, "http://ca.example/?a=b#c");
    EXPECT_EQ(header.expires, expires) << seconds;
  }
}

struct Row {
  std::string content;
  std::optional<std::string_view> uri;
  std::optional<long> expires;
};

TEST(HashFileHeader, OnlyLeadingLinesOfThisShape_Count) {
  const Row rows[] = {
      {"", {}, {}},
      {"\n", {}, {}},
      {"-----BEGIN X509 CRL-----\n", {}, {}},
      {"URI: u", "u", {}},  // no end of line
      {"URI: u\n", "u", {}},
      {"URI: u\r\nExpires: 5\r\n", "u", 5},
      {"URI: u\r\r\n", "u\r", {}},
      {"URI: \nExpires: 5\n", "", 5},
      {"URI: u\nExpires: 5", "u", 5},
      {"Expires: 5\n", {}, 5},             // without the URI
      {"Expires: 5\nURI: u\n", {}, 5},     // the other way round
      {"\nURI: u\nExpires: 5\n", {}, {}},  // not at the beginning
      {"URI: u\n\nExpires: 5\n", "u", {}},
      {"URI: u\nURI: v\nExpires: 5\n", "u", {}},
      {"uri: u\nexpires: 5\n", {}, {}},
      {"URI:u\n", {}, {}},
      {" URI: u\n", {}, {}},
      {"URI:  u \n", " u ", {}},
      // What is no number says nothing.
      {"URI: u\nExpires: \n", "u", {}},
      {"URI: u\nExpires: soon\n", "u", {}},
      {"URI: u\nExpires: 5x\n", "u", {}},
      {"URI: u\nExpires: 5 \n", "u", {}},
      {"URI: u\nExpires:  5\n", "u", {}},
      {"URI: u\nExpires: +5\n", "u", {}},
      {"URI: u\nExpires: 5.0\n", "u", {}},
      {"URI: u\nExpires: -5\n", "u", -5},
      {"URI: u\nExpires: 9223372036854775808\n", "u", {}},
      {"URI: u\nExpires: 99999999999999999999999999999999\n", "u", {}},
      {std::string("URI: a\0b\nExpires: 5\n", 20), std::string_view("a\0b", 3), 5},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.content);
    const HashFileHeader header = HashFileHeader::parse(row.content);
    EXPECT_EQ(header.uri, row.uri);
    std::optional<Time> expires;
    if (row.expires) expires = Time::then(*row.expires, true);
    EXPECT_EQ(header.expires, expires);
  }
}

TEST(HashFileHeader, LongestURI_FitsIntoTheMaximumSize) {
  const std::string uri(std::size_t{64} * 1024 + 16, 'u');
  const std::string text =
      HashFileHeader::text(uri, Time::then(std::numeric_limits<long>::min(), true));
  EXPECT_LE(text.size(), HashFileHeader::kMaximumSize);
}

TEST(HashFileHeader, EmailText_IsOneWordOfVisibleAscii) {
  const struct {
    const char* address;
    const char* text;
  } rows[] = {
      {"person@example.com", "person@example.com"},
      {"Person-x@Example.com", "Person-x@Example.com"},
      {"a--b@d", "a--b@d"},
      {"a b@c", "a%20b@c"},
      {"100%@c", "100%25@c"},
      {"a%20b@c", "a%2520b@c"},
      {"m\xc3\xbcller@c", "m%C3%BCller@c"},
      {"\"~!\"@[::1]", "\"~!\"@[::1]"},
      {"no address", ""},
  };
  for (const auto& row : rows) {
    const EmailAddress address(row.address);
    EXPECT_EQ(HashFileHeader::emailText(address), row.text);
    const std::string text = HashFileHeader::text(address) + "-----BEGIN";
    EXPECT_EQ(text, "Email: " + std::string(row.text) + "\n-----BEGIN");
    const HashFileHeader header = HashFileHeader::parse(text);
    EXPECT_EQ(header.email, row.text);
    EXPECT_FALSE(header.uri.has_value());
    EXPECT_FALSE(header.expires.has_value());
  }
}

TEST(HashFileHeader, LongAddress_IsItsDigest) {
  const std::string longest = std::string(1022, 'a') + "@b";
  EXPECT_EQ(HashFileHeader::emailText(EmailAddress(longest)), longest);
  const std::string longer = HashFileHeader::emailText(EmailAddress("a" + longest));
  EXPECT_EQ(longer.size(), 7U + 64);
  EXPECT_TRUE(longer.starts_with("sha256:"));
  EXPECT_NE(longer, HashFileHeader::emailText(EmailAddress("b" + longest)));
  EXPECT_EQ(HashFileHeader::emailText(EmailAddress(std::string(400, '\xff') + "@b")).size(), 71U);
}

TEST(HashFileHeader, URIHeader_NamesNoAddress) {
  EXPECT_FALSE(HashFileHeader::parse("URI: u\nEmail: a@b\n").email.has_value());
  EXPECT_FALSE(HashFileHeader::parse("email: a@b\n").email.has_value());
  EXPECT_FALSE(HashFileHeader::parse("\nEmail: a@b\n").email.has_value());
}

}  // namespace
}  // namespace Velantrix::Test
