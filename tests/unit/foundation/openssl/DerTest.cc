#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Exception.h>

#include <openssl/asn1.h>

#include <climits>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Crypto {
namespace {

using namespace std::string_literals;

std::string der(int tag, bool constructed, std::string_view content) {
  std::string out;
  appendDer(out, tag, constructed, content);
  return out;
}

struct Row {
  const char* name;
  int tag;
  bool constructed;
  std::size_t size;
  std::string header;
};

TEST(Der, Header_HasTheTypeAndTheShortestLength) {
  const Row rows[] = {
      {"nothing", V_ASN1_NULL, false, 0, "\x05\0"s},
      {"one octet", V_ASN1_INTEGER, false, 1, "\x02\x01"},
      {"longest short length", V_ASN1_OCTET_STRING, false, 127, "\x04\x7f"},
      {"shortest long length", V_ASN1_OCTET_STRING, false, 128, "\x04\x81\x80"},
      {"last of one octet", V_ASN1_UTF8STRING, false, 255, "\x0c\x81\xff"},
      {"first of two octets", V_ASN1_UTF8STRING, false, 256, "\x0c\x82\x01\0"s},
      {"first of three octets", V_ASN1_UTF8STRING, false, 65536, "\x0c\x83\x01\0\0"s},
      {"sequence", V_ASN1_SEQUENCE, true, 2, "\x30\x02"},
      {"set", V_ASN1_SET, true, 0, "\x31\0"s},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string content(row.size, '\x05');
    EXPECT_EQ(der(row.tag, row.constructed, content), row.header + content);
  }
}

TEST(Der, Append_LeavesWhatIsThere) {
  std::string out = "\x05\0"s;
  appendDer(out, V_ASN1_BOOLEAN, false, "\xff");
  EXPECT_EQ(out, "\x05\0\x01\x01\xff"s);
}

// OpenSSL counts in int. The octets that the view promises are never looked at.
TEST(Der, ContentLongerThanOpenSSLCounts_ThrowsAndAppendsNothing) {
  for (const std::size_t size :
       {std::size_t{INT_MAX} - 15, std::size_t{INT_MAX}, std::size_t{UINT_MAX} + 2}) {
    std::string out = "x";
    EXPECT_THROW(appendDer(out, V_ASN1_OCTET_STRING, false, std::string_view("", size)), Exception);
    EXPECT_EQ(out, "x");
  }
}

TEST(Der, HeaderRead_SaysWhereTheElementEnds) {
  const std::string input = "\x30\x03\x02\x01\x05\xa1\0"s;
  const unsigned char* const end = octets(input) + input.size();
  const std::optional<DerHeader> first = derHeader(octets(input), end);
  ASSERT_TRUE(first.has_value());
  EXPECT_TRUE(first->is(V_ASN1_SEQUENCE));
  EXPECT_TRUE(first->isWholeSequence());
  EXPECT_EQ(first->content, octets(input) + 2);
  EXPECT_EQ(first->next, octets(input) + 5);
  const std::optional<DerHeader> second = derHeader(first->next, end);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->tag, 1);
  EXPECT_EQ(second->tagClass, V_ASN1_CONTEXT_SPECIFIC);
  EXPECT_TRUE(second->constructed);
  EXPECT_FALSE(second->is(1));
  EXPECT_EQ(second->next, end);
  const std::optional<DerHeader> inner = derHeader(first->content, first->next);
  ASSERT_TRUE(inner.has_value());
  EXPECT_FALSE(inner->constructed);
  EXPECT_FALSE(inner->isWholeSequence());
}

TEST(Der, HeaderRead_OfIndefiniteLengthHasNoEnd) {
  const std::string input = "\x30\x80\0\0"s;
  const std::optional<DerHeader> header = derHeader(octets(input), octets(input) + input.size());
  ASSERT_TRUE(header.has_value());
  EXPECT_EQ(header->next, nullptr);
  EXPECT_FALSE(header->isWholeSequence());
}

TEST(Der, HeaderRead_NothingWhereNoElementIs) {
  const ErrorScope errors;
  for (const std::string& input :
       {""s, "\x30"s, "\x30\x01"s, "\x30\x85\1\1\1\1\1"s, "\x02\x80\0\0"s}) {
    EXPECT_FALSE(derHeader(octets(input), octets(input) + input.size()).has_value());
  }
}

TEST(Der, DecodedNext_IsPassed) {
  const ErrorScope errors;
  const std::string input = "\x02\x01\x05\x02\x01\x06\x30\0"s;
  const unsigned char* position = octets(input);
  const unsigned char* const end = position + input.size();
  for (const long value : {5L, 6L}) {
    const Owned<ASN1_INTEGER> next = decodeNext(d2i_ASN1_INTEGER, position, end);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(ASN1_INTEGER_get(next.get()), value);
  }
  EXPECT_EQ(decodeNext(d2i_ASN1_INTEGER, position, end), nullptr);
  EXPECT_EQ(position, octets(input) + 6);
}

TEST(Der, DecodedWhole_IsNothingLess) {
  const ErrorScope errors;
  const std::string input = "\x02\x01\x05\x02\x01\x06"s;
  EXPECT_NE(decodeWhole(d2i_ASN1_INTEGER, octets(input), 3), nullptr);
  EXPECT_EQ(decodeWhole(d2i_ASN1_INTEGER, octets(input), 2), nullptr);
  EXPECT_EQ(decodeWhole(d2i_ASN1_INTEGER, octets(input), 6), nullptr);
  EXPECT_EQ(decodeWhole(d2i_ASN1_INTEGER, static_cast<const unsigned char*>(nullptr), 0), nullptr);
}

TEST(Der, Octets_AreThoseOfTheText) {
  const std::string text = "\xff";
  EXPECT_EQ(*octets(text), 0xff);
  EXPECT_EQ(static_cast<const void*>(octets(text)), text.data());
}

TEST(Der, EncodedWhole_IsWhatWasDecoded) {
  const std::string integer = der(V_ASN1_INTEGER, false, "\x05");
  const Owned<ASN1_STRING> decoded = decodeWhole(d2i_ASN1_INTEGER, octets(integer), integer.size());
  ASSERT_NE(decoded, nullptr);
  EXPECT_EQ(encodeWhole(i2d_ASN1_INTEGER, decoded.get()), integer);
  EXPECT_EQ(encodeWhole<ASN1_STRING>(i2d_ASN1_INTEGER, nullptr), "");
}

}  // namespace
}  // namespace Velantrix::Crypto
