#include "store/CRLFileHeader.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::CRLFileHeader;

TEST(CRLFileHeader, Text_IsTwoLinesInThisOrder) {
  EXPECT_EQ(CRLFileHeader::text("http://ca.example/ca.crl", Time::then(1795132800, true)),
            "URI: http://ca.example/ca.crl\nExpires: 1795132800\n");
}

TEST(CRLFileHeader, Text_IsReadBack) {
  for (const long seconds : {0L, 1L, -1L, 1795132800L, std::numeric_limits<long>::max(),
                             std::numeric_limits<long>::min()}) {
    const Time expires = Time::then(seconds, true);
    const std::string text =
        CRLFileHeader::text("http://ca.example/?a=b#c", expires) + "-----BEGIN";
    const CRLFileHeader header = CRLFileHeader::parse(text);
    EXPECT_EQ(header.uri, "http://ca.example/?a=b#c");
    EXPECT_EQ(header.expires, expires) << seconds;
  }
}

struct Row {
  std::string content;
  std::optional<std::string_view> uri;
  std::optional<long> expires;
};

TEST(CRLFileHeader, OnlyLeadingLinesOfThisShape_Count) {
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
    const CRLFileHeader header = CRLFileHeader::parse(row.content);
    EXPECT_EQ(header.uri, row.uri);
    std::optional<Time> expires;
    if (row.expires) expires = Time::then(*row.expires, true);
    EXPECT_EQ(header.expires, expires);
  }
}

TEST(CRLFileHeader, LongestURI_FitsIntoTheMaximumSize) {
  const std::string uri(std::size_t{64} * 1024 + 16, 'u');
  const std::string text =
      CRLFileHeader::text(uri, Time::then(std::numeric_limits<long>::min(), true));
  EXPECT_LE(text.size(), CRLFileHeader::kMaximumSize);
}

}  // namespace
}  // namespace Velantrix::Test
