#include "foundation/model/ReasonFlags.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

using namespace std::string_literals;

TEST(ReasonFlags, Octets_AreCutToTheReasonsThatAreDefined) {
  struct Row {
    const char* name;
    std::string octets;
    unsigned int reasons;
  };
  const Row rows[] = {
      {"no bit", "", 0},
      {"no bit set", "\0"s, 0},
      {"keyCompromise", "\x40", 0x40},
      {"privilegeWithdrawn", "\x01", 0x01},
      {"aACompromise, in the second octet", "\0\x80"s, 0x8000},
      {"both octets", "\x62\x80", 0x8062},
      {"all", "\x7f\x80", 0x807f},
      {"unused, which is no reason", "\x80", 0},
      {"bits behind the last one", "\0\x7f\xff"s, 0},
      {"everything", "\xff\xff\xff", 0x807f},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Owned<ASN1_BIT_STRING> flags(ASN1_BIT_STRING_new());
    ASSERT_EQ(ASN1_STRING_set(flags.get(), row.octets.data(), static_cast<int>(row.octets.size())),
              1);
    EXPECT_EQ(reasonFlags(flags.get()), row.reasons);
  }
}

TEST(ReasonFlags, AbsentField_IsAboutEveryReason) { EXPECT_EQ(reasonFlags(nullptr), 0x807fU); }

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
