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

TEST(HashFileHeader, Notes_StandBehindTheExpiryAndAreReadBack) {
  const Time expires = Time::then(1795132800, true);
  const std::string two = HashFileHeader::text("http://ca.example/ca.crl", expires);
  EXPECT_EQ(HashFileHeader::text("http://ca.example/ca.crl", expires, {}), two);
  const std::string text = HashFileHeader::text(
      "http://ca.example/ca.crl", expires,
      {"W/\"5f3 61a\"", "Tue, 17 Nov 2026 08:00:00 GMT", Time::then(1795046400, true)});
  EXPECT_EQ(text, two +
                      "ETag: W/\"5f3 61a\"\nLast-Modified: Tue, 17 Nov 2026 08:00:00 GMT\n"
                      "Fetched: 1795046400\n");
  const std::string content = text + "-----BEGIN X509 CRL-----\n";
  const HashFileHeader header = HashFileHeader::parse(content);
  EXPECT_EQ(header.uri, "http://ca.example/ca.crl");
  EXPECT_EQ(header.expires, expires);
  EXPECT_EQ(header.etag, "W/\"5f3 61a\"");
  EXPECT_EQ(header.lastModified, "Tue, 17 Nov 2026 08:00:00 GMT");
  EXPECT_EQ(header.fetched, Time::then(1795046400, true));
  EXPECT_EQ(header.size, text.size());
}

TEST(HashFileHeader, NotesThatAreMissing_HaveNoLine) {
  const std::string two = "URI: u\nExpires: 5\n";
  const struct {
    HashFileHeader::Notes notes;
    const char* lines;
  } rows[] = {
      {{.etag = "e"}, "ETag: e\n"},
      {{.lastModified = "m"}, "Last-Modified: m\n"},
      {{.fetched = Time::then(7, true)}, "Fetched: 7\n"},
      {{.etag = "e", .fetched = Time::then(-7, true)}, "ETag: e\nFetched: -7\n"},
  };
  for (const auto& row : rows) {
    const std::string text = HashFileHeader::text("u", Time::then(5, true), row.notes);
    EXPECT_EQ(text, two + row.lines);
    const HashFileHeader header = HashFileHeader::parse(text);
    EXPECT_EQ(header.etag.value_or(""), row.notes.etag);
    EXPECT_EQ(header.lastModified.value_or(""), row.notes.lastModified);
    EXPECT_EQ(header.fetched, row.notes.fetched);
    EXPECT_EQ(header.size, text.size());
  }
}

TEST(HashFileHeader, NotesOfAnotherShape_SayNothing) {
  const struct {
    const char* lines;
    std::optional<std::string_view> etag;
    std::optional<long> fetched;
  } rows[] = {
      {"Fetched: 7\nETag: e\n", {}, 7},  // the other way round
      {"ETag: e\nETag: f\nFetched: 7\n", "e", {}},
      {"ETag: e\r\nFetched: 7\r\n", "e", 7},
      {"ETag: \nFetched: 7\n", {}, 7},
      {"ETag: a\tb\nFetched: 7\n", {}, 7},
      {"ETag: \xc3\xa4\nFetched: 7\n", {}, 7},
      {"ETag: -----BEGIN A-----\nFetched: 7\n", {}, 7},
      {"etag: e\nFetched: 7\n", {}, {}},
      {"ETag: e\n\nFetched: 7\n", "e", {}},
      {"ETag: e\nFetched: 7 \n", "e", {}},
      {"ETag: e\nFetched: 9223372036854775808\n", "e", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const std::string content = std::string("URI: u\nExpires: 5\n") + row.lines;
    const HashFileHeader header = HashFileHeader::parse(content);
    EXPECT_EQ(header.uri, "u");
    EXPECT_EQ(header.expires, Time::then(5, true));
    EXPECT_EQ(header.etag, row.etag);
    std::optional<Time> fetched;
    if (row.fetched) fetched = Time::then(*row.fetched, true);
    EXPECT_EQ(header.fetched, fetched);
  }
}

TEST(HashFileHeader, Validator_IsKeptWhenItIsOneLineAndNoBlock) {
  EXPECT_TRUE(HashFileHeader::isKept(" ~"));
  EXPECT_TRUE(HashFileHeader::isKept(std::string(256, 'e')));
  EXPECT_TRUE(HashFileHeader::isKept("a----b"));
  for (const std::string& other :
       {std::string(), std::string(257, 'e'), std::string("a\nb"), std::string("a\rb"),
        std::string("a\0b", 3), std::string("\x7f"), std::string("\x1f"), std::string("\x80"),
        std::string("a-----b")}) {
    EXPECT_FALSE(HashFileHeader::isKept(other)) << other;
    EXPECT_EQ(
        HashFileHeader::text("u", Time::then(5, true), {.etag = other, .lastModified = other}),
        "URI: u\nExpires: 5\n");
  }
}

TEST(HashFileHeader, LongestURI_FitsIntoTheMaximumSize) {
  const std::string uri(std::size_t{64} * 1024 + 16, 'u');
  const Time longest = Time::then(std::numeric_limits<long>::min(), true);
  const std::string text =
      HashFileHeader::text(uri, longest, {std::string(256, 'e'), std::string(256, 'm'), longest});
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
