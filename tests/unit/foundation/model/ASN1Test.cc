#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/ASN1.h>
#include <velantrix/Exception.h>

#include <openssl/bn.h>
#include <openssl/objects.h>

#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>
#include <string>

namespace Velantrix::Crypto::ASN1 {
namespace {

Owned<ASN1_INTEGER> native(const std::string& hex) {
  BIGNUM* number = nullptr;
  EXPECT_NE(BN_hex2bn(&number, hex.c_str()), 0);
  const Owned<BIGNUM> owner(number);
  return Owned<ASN1_INTEGER>(BN_to_ASN1_INTEGER(number, nullptr));
}

Integer integer(const std::string& hex) { return Integer(native(hex).get()); }

template <class T>
std::string printed(const T& value) {
  std::ostringstream out;
  // What a caller left set on a stream must not change a log line.
  out << std::hex << std::showbase << std::setfill('*') << value;
  return out.str();
}

TEST(Integer, Printed_UpperCaseHexPairsAsTheOpenSSLCommandPrints) {
  struct Row {
    const char* hex;
    const char* text;
  };
  const Row rows[] = {
      {"0", "00"},
      {"1", "01"},
      {"0A", "0A"},
      {"80", "80"},
      {"100", "0100"},
      {"-1", "-01"},
      {"-ABC", "-0ABC"},
      {"FFEEDDCCBBAA99887766554433221100FFEEDDCC", "FFEEDDCCBBAA99887766554433221100FFEEDDCC"},
      // Longer than a line of i2a_ASN1_INTEGER, which would be broken with a backslash.
      {"1122334455667788990011223344556677889900112233445566778899001122334455667788990011223344",
       "1122334455667788990011223344556677889900112233445566778899001122334455667788990011223344"},
  };
  for (const Row& row : rows) EXPECT_EQ(printed(integer(row.hex)), row.text);
}

// As OpenSSL makes it new: a zero without octets, which no DER has.
TEST(Integer, WithoutOctets_IsPrintedAsZero) {
  const Owned<ASN1_INTEGER> made(ASN1_INTEGER_new());
  EXPECT_EQ(printed(Integer(made.get())), "00");
}

TEST(Integer, Absent_PrintingThrowsAndWritesNothing) {
  std::ostringstream out;
  EXPECT_THROW(out << Integer(), Exception);
  EXPECT_EQ(out.str(), "");
  EXPECT_TRUE(Integer(nullptr).isNull());
  EXPECT_EQ(Integer().native(), nullptr);
}

TEST(Integer, Compared_BySignAndValue) {
  const char* const ordered[] = {
      "-100", "-1", "0", "1", "7F", "80", "FF", "100", "FFFFFFFFFFFFFFFFFF"};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    for (std::size_t k = 0; k < std::size(ordered); ++k) {
      SCOPED_TRACE(std::string(ordered[i]) + " and " + ordered[k]);
      EXPECT_EQ(integer(ordered[i]) == integer(ordered[k]), i == k);
      EXPECT_EQ(integer(ordered[i]) != integer(ordered[k]), i != k);
      EXPECT_EQ(integer(ordered[i]) <= integer(ordered[k]), i <= k);
    }
  }
}

TEST(Integer, Absent_EqualsOnlyAbsentAndIsNeverLessOrEqual) {
  EXPECT_TRUE(Integer() == Integer());
  EXPECT_FALSE(Integer() == integer("0"));
  EXPECT_FALSE(integer("0") == Integer());
  EXPECT_FALSE(Integer() <= Integer());
  EXPECT_FALSE(Integer() <= integer("5"));
  EXPECT_FALSE(integer("5") <= Integer());
}

TEST(Integer, CopyAndSource_LiveApart) {
  Integer copy;
  {
    const Owned<ASN1_INTEGER> source = native("1234");
    const Integer first(source.get());
    copy = first;
    EXPECT_EQ(copy.native(), first.native());
    ASSERT_EQ(ASN1_INTEGER_set(source.get(), 1), 1);
  }
  EXPECT_EQ(printed(copy), "1234");
}

Owned<ASN1_OCTET_STRING> octetString(const std::string& content) {
  Owned<ASN1_OCTET_STRING> made(ASN1_OCTET_STRING_new());
  EXPECT_EQ(ASN1_STRING_set(made.get(), content.data(), static_cast<int>(content.size())), 1);
  return made;
}

TEST(RefOctetString, Compared_ByContentAndPresence) {
  const RefOctetString absent(static_cast<const asn1_string_st*>(nullptr));
  const RefOctetString none(octetString("").get());
  const RefOctetString one(octetString("\xab\xcd").get());
  const RefOctetString same(octetString("\xab\xcd").get());
  const RefOctetString longer(octetString("\xab\xcd\x01").get());
  EXPECT_TRUE(absent.empty());
  EXPECT_FALSE(none.empty());
  EXPECT_TRUE(absent == RefOctetString());
  EXPECT_TRUE(one == same);
  EXPECT_FALSE(one != same);
  EXPECT_TRUE(one != longer);
  EXPECT_TRUE(one != absent);
  EXPECT_TRUE(absent != one);
  // Present without octets is not absent.
  EXPECT_TRUE(none != absent);
  EXPECT_TRUE(none == none);
}

TEST(RefOctetString, Printed_UpperCasePairsWithColons) {
  EXPECT_EQ(printed(RefOctetString(octetString("\xab\xcd\x01").get())), "AB:CD:01");
  EXPECT_EQ(printed(RefOctetString(octetString("\x0f").get())), "0F");
  EXPECT_EQ(printed(RefOctetString()), "");
}

Owned<ASN1_TIME> time(int type, const std::string& text) {
  Owned<ASN1_TIME> made(ASN1_STRING_type_new(type));
  EXPECT_EQ(ASN1_STRING_set(made.get(), text.data(), static_cast<int>(text.size())), 1);
  return made;
}

TEST(RefGeneralizedTime, Read_BothFormsInUtc) {
  struct Row {
    int type;
    const char* text;
    long seconds;
  };
  const Row rows[] = {
      {V_ASN1_UTCTIME, "700101000000Z", 0},
      {V_ASN1_UTCTIME, "491231235959Z", 2524607999},
      {V_ASN1_UTCTIME, "500101000000Z", -631152000},
      {V_ASN1_GENERALIZEDTIME, "20000229120000Z", 951825600},
      {V_ASN1_GENERALIZEDTIME, "99991231235959Z", 253402300799},
      {V_ASN1_GENERALIZEDTIME, "19000101000000Z", -2208988800},
      {V_ASN1_GENERALIZEDTIME, "20000101010000+0100", 946684800},
      {V_ASN1_GENERALIZEDTIME, "20000101000000.5Z", 946684800},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const Owned<ASN1_TIME> source = time(row.type, row.text);
    for (const bool copy : {true, false}) {
      const RefGeneralizedTime read(source.get(), copy);
      EXPECT_EQ(read->seconds(), row.seconds);
      EXPECT_EQ(read->asTime(), Time::then(row.seconds, true));
    }
  }
}

TEST(RefGeneralizedTime, Unreadable_Throws) {
  const std::pair<int, const char*> rows[] = {
      {V_ASN1_UTCTIME, ""},
      {V_ASN1_UTCTIME, "7001010000Zx"},
      {V_ASN1_UTCTIME, "701301000000Z"},
      {V_ASN1_UTCTIME, "20000101000000Z"},
      {V_ASN1_GENERALIZEDTIME, "20000230000000Z"},
      {V_ASN1_GENERALIZEDTIME, "garbage"},
      {V_ASN1_OCTET_STRING, "20000101000000Z"},
  };
  for (const auto& [type, text] : rows) {
    SCOPED_TRACE(text);
    const Owned<ASN1_TIME> source = time(type, text);
    EXPECT_THROW(RefGeneralizedTime(source.get(), true), Exception);
  }
}

TEST(RefGeneralizedTime, Ordered_AbsentFirst) {
  const RefGeneralizedTime absent(nullptr, true);
  const RefGeneralizedTime early(time(V_ASN1_UTCTIME, "000101000000Z").get(), true);
  const RefGeneralizedTime late(time(V_ASN1_GENERALIZEDTIME, "20000101000001Z").get(), true);
  EXPECT_TRUE(absent.empty());
  EXPECT_TRUE(early < late);
  EXPECT_FALSE(late < early);
  EXPECT_FALSE(early < early);
  EXPECT_TRUE(absent < early);
  EXPECT_FALSE(early < absent);
  EXPECT_FALSE(absent < RefGeneralizedTime());
}

TEST(RefObjectIdentifier, Dotted_IsWhatOpenSSLKnows) {
  for (const char* text : {"2.5.29.32.0", "1.3.6.1.5.5.7.1.1", "0.0", "1.39",
                           "2.999.18446744073709551617", "1.2.3.4.5.6.7.8.9"}) {
    SCOPED_TRACE(text);
    const RefObjectIdentifier oid{std::string(text)};
    const Owned<ASN1_OBJECT> expected(OBJ_txt2obj(text, 1));
    EXPECT_EQ(OBJ_cmp(oid->native(), expected.get()), 0);
    EXPECT_EQ(oid->asString(), text);
    EXPECT_TRUE(oid->ownsObject());
  }
}

TEST(RefObjectIdentifier, AnythingElse_Throws) {
  for (const char* text :
       {"", "anyPolicy", "commonName", "1", "1.", ".1", "1..2", "3.1", "1.40", "0.100", "1.2.3 ",
        " 1.2.3", "1 2 3", "1.02", "1.2.x", "-1.2", "1.2.-3", "OID.1.2"}) {
    SCOPED_TRACE(text);
    EXPECT_THROW(RefObjectIdentifier{std::string(text)}, Exception);
  }
  EXPECT_THROW(RefObjectIdentifier(std::string("1.2\0.3", 6)), Exception);
}

TEST(ObjectIdentifier, OwnershipGivenAway_ObjectIsTheNewOwnersAndHandedOutOnce) {
  const RefObjectIdentifier oid{std::string("1.2.3.4.5.6")};
  // A leak checker sees it if neither side frees it, and a double free if both do.
  const Owned<ASN1_OBJECT> given(oid.get()->relinquishOwnerShip());
  ASSERT_NE(given, nullptr);
  EXPECT_EQ(given.get(), oid->native());
  EXPECT_FALSE(oid->ownsObject());
  EXPECT_EQ(oid.get()->relinquishOwnerShip(), nullptr);
}

}  // namespace
}  // namespace Velantrix::Crypto::ASN1
