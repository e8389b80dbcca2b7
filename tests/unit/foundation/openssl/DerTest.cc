#include "foundation/openssl/Der.h"

#include <velantrix/Exception.h>

#include <openssl/asn1.h>

#include <climits>
#include <gtest/gtest.h>
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

TEST(Der, Octets_AreThoseOfTheText) {
  const std::string text = "\xff";
  EXPECT_EQ(*octets(text), 0xff);
  EXPECT_EQ(static_cast<const void*>(octets(text)), text.data());
}

}  // namespace
}  // namespace Velantrix::Crypto
