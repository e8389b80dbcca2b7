#include "foundation/base/Hex.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/ObjectIdentifierText.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/objects.h>

#include <gtest/gtest.h>
#include <random>
#include <string>

namespace Velantrix::Crypto {
namespace {

Owned<ASN1_OBJECT> object(const std::string& content) {
  std::string der;
  appendDer(der, V_ASN1_OBJECT, false, content);
  const unsigned char* position = octets(der);
  return Owned<ASN1_OBJECT>(d2i_ASN1_OBJECT(nullptr, &position, static_cast<long>(der.size())));
}

TEST(ObjectIdentifierText, RandomIdentifiers_AgreeWithOpenSSLBothWays) {
  std::mt19937 random(7);
  for (int round = 0; round < 5000; ++round) {
    std::string content;
    const auto arcs = 1 + random() % 5;
    for (unsigned long i = 0; i < arcs; ++i) {
      const auto length = random() % 4 == 0 ? random() % 14 : random() % 3;
      for (unsigned long k = 0; k < length; ++k) {
        auto septet = random() & 0x7f;
        if (k == 0 && septet == 0) septet = 1;  // padding is not DER
        content += static_cast<char>(0x80 | septet);
      }
      content += static_cast<char>(random() & 0x7f);
    }
    const Owned<ASN1_OBJECT> made = object(content);
    ASSERT_NE(made, nullptr);
    char expected[1024];
    ASSERT_GT(OBJ_obj2txt(expected, sizeof expected, made.get(), 1), 0);
    const std::string text = objectIdentifierText(made.get());
    ASSERT_EQ(text, expected);
    ASSERT_EQ(objectIdentifierContent(text), content) << text;
  }
}

TEST(ObjectIdentifierText, MoreOctetsThanOpenSSLPrints_StillDotted) {
  std::string content = "\x2a";
  std::string expected = "1.2";
  for (int i = 0; i < 100000; ++i) {
    content += '\x05';
    expected += ".5";
  }
  EXPECT_EQ(objectIdentifierText(object(content).get()), expected);
  EXPECT_EQ(objectIdentifierContent(expected), content);
}

TEST(ObjectIdentifierText, LongestArc_DottedAndOneOctetMoreIsHexadecimal) {
  const std::string longest = "\x2a" + std::string(1023, '\xff') + "\x7f";
  const std::string text = objectIdentifierText(object(longest).get());
  EXPECT_EQ(text.compare(0, 4, "1.2."), 0);
  EXPECT_EQ(objectIdentifierContent(text), longest);

  const std::string longer = "\x2a" + std::string(1024, '\xff') + "\x7f";
  EXPECT_EQ(objectIdentifierText(object(longer).get()),
            "#" + hexText(octets(longer), longer.size()));
}

TEST(ObjectIdentifierText, ArcOfAMillionDigits_RefusedAtOnce) {
  const std::string digits(1000000, '9');
  EXPECT_FALSE(objectIdentifierContent("1.2." + digits).has_value());
  EXPECT_FALSE(objectIdentifierContent("2." + digits).has_value());
  EXPECT_FALSE(objectIdentifierContent(digits).has_value());
}

}  // namespace
}  // namespace Velantrix::Crypto
