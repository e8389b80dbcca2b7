#include "foundation/base/DotSegments.h"

#include <velantrix/Uri.h>

#include <cstddef>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::Uri;

struct PartsRow {
  const char* text;
  const char* scheme;
  const char* hostname;
  unsigned short port;
  const char* path;
};

TEST(Uri, Parts_Table) {
  const std::vector<PartsRow> rows = {
      {"http://example.com/ca.crl", "http:", "example.com", 0, "/ca.crl"},
      {"HTTPS://Example.COM/A", "https:", "Example.COM", 0, "/A"},
      {"http://h", "http:", "h", 0, "/"},
      {"http://h?q", "http:", "h", 0, "/"},
      {"http://h:8080/p?q=1#f", "http:", "h", 8080, "/p"},
      {"http://h:/p", "http:", "h", 0, "/p"},
      {"http://h:65535/", "http:", "h", 65535, "/"},
      {"http://h:00080/", "http:", "h", 80, "/"},
      {"http://h/a%2Fb/../c%20d", "http:", "h", 0, "/a%2Fb/../c%20d"},
      {"http://u:p@h:1/", "http:", "h", 1, "/"},
      {"http://1.2.3.4:81/x", "http:", "1.2.3.4", 81, "/x"},
      {"http://[2001:db8::1]:82/x", "http:", "2001:db8::1", 82, "/x"},
      {"http://[::1]", "http:", "::1", 0, "/"},
      {"ldap:///CN=a,DC=b?certificateRevocationList?base", "ldap:", "", 0, "/CN=a,DC=b"},
      {"urn:example:A", "urn:", "", 0, "example:A"},
      {"mailto:a@b", "mailto:", "", 0, "a@b"},
  };
  for (const PartsRow& row : rows) {
    SCOPED_TRACE(row.text);
    const Uri uri{std::string(row.text)};
    EXPECT_FALSE(uri.isNull());
    EXPECT_EQ(uri.scheme(), row.scheme);
    EXPECT_EQ(uri.hostname(), row.hostname);
    EXPECT_EQ(uri.port(), row.port);
    EXPECT_EQ(uri.path(), row.path);
    EXPECT_EQ(uri.asString(), row.text);
  }
}

TEST(Uri, NoURI_IsNullAndAllPartsAreEmpty) {
  std::vector<std::string> rows = {
      "",
      "/relative",
      "example.com",
      "//example.com/",
      ":x",
      "1http://h/",
      "http://a b/",
      "http://h/a b",
      "http://h/\n",
      "http://h/a\0b"s,
      "http://h/\xc3\xa4",
      "http://h/%",
      "http://h/%4",
      "http://h/%zz",
      "http://h:65536/",
      "http://h:4294967376/",
      "http://h:99999999999999999999/",
      "http://h:80a/",
      "http://h:-1/",
      "http://[::1/",
      "http://[x]/",
      "http://%5B::1%5D/",
      "http://h/" + std::string(64 * 1024, 'a'),
  };
  for (const std::string& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.substr(0, 80)));
    const Uri uri(row);
    EXPECT_TRUE(uri.isNull());
    EXPECT_EQ(uri.scheme(), "");
    EXPECT_EQ(uri.hostname(), "");
    EXPECT_EQ(uri.port(), 0);
    EXPECT_EQ(uri.path(), "");
    EXPECT_EQ(uri.asString(), "");
    EXPECT_EQ(uri.canonicalized(), "");
    EXPECT_TRUE(uri == Uri());
  }
}

struct CanonicalRow {
  const char* text;
  const char* canonical;
};

TEST(Uri, Canonicalized_Table) {
  const std::vector<CanonicalRow> rows = {
      // RFC 3986, 6.2.2: the example of the section.
      {"eXAMPLE://a/./b/../b/%63/%7bfoo%7d", "example://a/b/c/%7Bfoo%7D"},
      // 6.2.2.1 case
      {"HTTP://Example.COM/A", "http://example.com/A"},
      {"http://User@H/", "http://User@h/"},
      {"http://[2001:DB8::A]/", "http://[2001:db8::a]/"},
      {"http://h%c3%a4/", "http://h%C3%A4/"},
      // 6.2.2.2 percent-encoding: reserved characters stay encoded
      {"http://h/%41%2d%2E%5f%7e", "http://h/A-._~"},
      {"http://h/%2fa%3f%26?x=%26%3d%41#%41%23", "http://h/%2Fa%3F%26?x=%26%3DA#A%23"},
      {"http://h/%2541", "http://h/%2541"},
      {"http://ex%61mple.com/", "http://example.com/"},
      {"http://EX%41MPLE.com/", "http://example.com/"},
      // 6.2.2.3 dot segments, RFC 3986, 5.2.4
      {"http://h/a/b/c/./../../g", "http://h/a/g"},
      {"http://h/.", "http://h/"},
      {"http://h/..", "http://h/"},
      {"http://h/a/.", "http://h/a/"},
      {"http://h/a/..", "http://h/"},
      {"http://h/a/b/..", "http://h/a/"},
      {"http://h/../../a", "http://h/a"},
      {"http://h/%2e%2E/a", "http://h/a"},
      {"http://h//a//../b/", "http://h//a/b/"},
      {"http://h/.../a.", "http://h/.../a."},
      {"urn:a/../b", "urn:a/../b"},
      {"x:/a/..//b", "x:/.//b"},
      // 6.2.3 default port, empty path
      {"http://h:80/", "http://h/"},
      {"http://h:0080/", "http://h/"},
      {"http://h:/", "http://h/"},
      {"http://h", "http://h/"},
      {"http://h?q", "http://h/?q"},
      {"http://h:443/", "http://h:443/"},
      {"https://h:443/", "https://h/"},
      {"https://h:80/", "https://h:80/"},
      {"ldap://h:389/x", "ldap://h/x"},
      {"ldaps://h:636/x", "ldaps://h/x"},
      {"ftp://h:21/x", "ftp://h/x"},
      {"http://h:0/", "http://h:0/"},
      {"http://h:08080/", "http://h:8080/"},
      // nothing is lost
      {"http://u:p@h:81/p?q#f", "http://u:p@h:81/p?q#f"},
      {"http://h/?#", "http://h/?#"},
      {"ldap:///CN=a?b?base", "ldap:///CN=a?b?base"},
  };
  for (const CanonicalRow& row : rows) {
    EXPECT_EQ(Uri(std::string(row.text)).canonicalized(), row.canonical) << row.text;
  }
}

TEST(Uri, Canonicalized_RandomURIs_NormalFormIsItsOwnNormalForm) {
  static constexpr const char* kPieces[] = {"/",   ".", "..", "a",   "%2e", "%2F", "%41", "//",
                                            ":",   "@", "?",  "#",   "80",  "B",   "%c3", "[",
                                            "::1", "]", "-",  "%25", "=",   "&",   "/..", "/./"};
  std::mt19937 random(20240229);
  std::uniform_int_distribution<std::size_t> piece(0, std::size(kPieces) - 1);
  std::uniform_int_distribution<int> length(0, 12);
  int valid = 0;
  for (int i = 0; i < 50000; ++i) {
    std::string text = i % 2 == 0 ? "http://" : "x:";
    for (int n = length(random); n > 0; --n) text += kPieces[piece(random)];
    const Uri uri(text);
    if (uri.isNull()) continue;
    ++valid;
    const Uri again(uri.canonicalized());
    ASSERT_FALSE(again.isNull()) << text << " -> " << uri.canonicalized();
    ASSERT_EQ(again.canonicalized(), uri.canonicalized()) << text;
    ASSERT_EQ(again, uri) << text;
  }
  EXPECT_GT(valid, 5000);
}

TEST(Uri, Canonicalized_LongestPathOfDots_IsBoundedInTime) {
  std::string text = "http://h";
  while (text.size() + 5 <= 64 * 1024) text += "/a/..";
  EXPECT_EQ(Uri(text).canonicalized(), "http://h/");
}

// RFC 3986, 2.3: what is unreserved stands for itself, every other octet stays encoded.
TEST(Uri, Canonicalized_EveryEncodedOctet_IsDecodedWhenItIsUnreserved) {
  constexpr std::string_view kUnreserved =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  constexpr std::string_view kUpper = "0123456789ABCDEF";
  constexpr std::string_view kLower = "0123456789abcdef";
  for (unsigned int octet = 0; octet < 256; ++octet) {
    const std::string encoded{'%', kUpper[octet / 16], kUpper[octet % 16]};
    const std::string lowerCase{'%', kLower[octet / 16], kLower[octet % 16]};
    const auto character = static_cast<char>(octet);
    const bool unreserved = kUnreserved.find(character) != std::string_view::npos;
    const std::string normal = unreserved ? std::string(1, character) : encoded;
    for (const std::string& written : {encoded, lowerCase}) {
      const std::string text = "http://h/a" + written + "b?" + written + "#" + written;
      EXPECT_EQ(Uri(text).canonicalized(), "http://h/a" + normal + "b?" + normal + "#" + normal);
    }
  }
}

TEST(Uri, Canonicalized_EveryLetterOfTheHost_IsInLowerCase) {
  constexpr const char* kCanonical = "http://abcdefghijklmnopqrstuvwxyz/";
  EXPECT_EQ(Uri("HTTP://ABCDEFGHIJKLMNOPQRSTUVWXYZ/").canonicalized(), kCanonical);
  EXPECT_EQ(Uri("http://%41bcdefghijklmnopqrstuvwxy%5A/").canonicalized(), kCanonical);
  EXPECT_EQ(Uri("http://h%40%5B%60%7B/").canonicalized(), "http://h%40%5B%60%7B/");
}

TEST(Uri, Length_SixtyFourKibibytesAreTakenAndNotOneMore) {
  constexpr std::size_t kMost = 65'536;
  const std::string start = "http://h/";
  const std::string longest = start + std::string(kMost - start.size(), 'a');
  ASSERT_EQ(longest.size(), kMost);
  EXPECT_EQ(Uri(longest).asString(), longest);
  EXPECT_EQ(Uri(longest).canonicalized(), longest);
  EXPECT_TRUE(Uri(longest + "a").isNull());
}

TEST(Uri, Equality_SameNormalForm_IsEqual) {
  EXPECT_TRUE(Uri("HTTP://h:80") == Uri("http://H/"));
  EXPECT_FALSE(Uri("HTTP://h:80") != Uri("http://H/"));
  EXPECT_TRUE(Uri("http://h/a") != Uri("http://h/A"));
  EXPECT_TRUE(Uri("http://h/") != Uri("https://h/"));
  EXPECT_TRUE(Uri("http://h/") != Uri());
  EXPECT_TRUE(Uri() == Uri());
}

TEST(Uri, DotSegments_AreSeenInAnyEncoding) {
  for (const char* const path : {"/.", "/..", "/a/./b", "/a/../b", "/%2e", "/%2E%2e/b", "/.%2e/",
                                 "/a/%2e./b", "/a/%2E", ".", "../a", "//./"}) {
    EXPECT_TRUE(Velantrix::hasDotSegments(path)) << path;
  }
  for (const char* const path : {"", "/", "//", "/...", "/.a", "/a.", "/..a", "/a..", "/a..b",
                                 "/%2e%2e%2e", "/.%2f.", "/%252e", "/.%00", "/.;/a"}) {
    EXPECT_FALSE(Velantrix::hasDotSegments(path)) << path;
  }
}

}  // namespace
