#include "foundation/openssl/BitString.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto {
namespace {

using namespace std::string_literals;

TEST(BitString, NamedBits_AreTheFirstTwoOctetsTheFirstLowest) {
  struct Row {
    std::string octets;
    unsigned int bits;
  };
  const Row rows[] = {
      {"", 0},
      {"\0"s, 0},
      {"\x80", KU_DIGITAL_SIGNATURE},
      {"\x06", KU_KEY_CERT_SIGN | KU_CRL_SIGN},
      {"\0\x80"s, KU_DECIPHER_ONLY},
      {"\xff\x80", 0x80ff},
      {"\x01\x02\xff", 0x0201},  // what has no name is left out
  };
  for (const Row& row : rows) {
    const Owned<ASN1_BIT_STRING> bits(ASN1_BIT_STRING_new());
    ASSERT_EQ(ASN1_STRING_set(bits.get(), row.octets.data(), static_cast<int>(row.octets.size())),
              1);
    EXPECT_EQ(namedBits(bits.get()), row.bits) << ::testing::PrintToString(row.octets);
  }
}

}  // namespace
}  // namespace Velantrix::Crypto
