#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/model/StrictTime.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

std::optional<Time> read(int type, const std::string& text) {
  const Owned<ASN1_STRING> native(ASN1_STRING_type_new(type));
  EXPECT_EQ(ASN1_STRING_set(native.get(), text.data(), static_cast<int>(text.size())), 1);
  return strictTime(native.get());
}

TEST(StrictTime, SecondsInUTC_AreRead) {
  const Time leapDay = Time::then(1709208000, true);
  EXPECT_EQ(read(V_ASN1_GENERALIZEDTIME, "20240229120000Z"), leapDay);
  EXPECT_EQ(read(V_ASN1_UTCTIME, "240229120000Z"), leapDay);
  EXPECT_EQ(read(V_ASN1_GENERALIZEDTIME, "99991231235959Z"), Time::then(253402300799, true));
}

TEST(StrictTime, WhatIsWrittenOtherwise_IsNoTime) {
  const struct {
    int type;
    const char* text;
  } rows[] = {
      {V_ASN1_GENERALIZEDTIME, ""},
      {V_ASN1_GENERALIZEDTIME, "Z"},
      {V_ASN1_GENERALIZEDTIME, "202402291200Z"},
      {V_ASN1_GENERALIZEDTIME, "20240229120000"},
      {V_ASN1_GENERALIZEDTIME, "202402291200000"},
      {V_ASN1_GENERALIZEDTIME, "20240229120000.5Z"},
      {V_ASN1_GENERALIZEDTIME, "202402291200.5Z"},
      {V_ASN1_GENERALIZEDTIME, "20240229130000+0100"},
      {V_ASN1_GENERALIZEDTIME, "20230229120000Z"},
      {V_ASN1_GENERALIZEDTIME, "20241329120000Z"},
      {V_ASN1_GENERALIZEDTIME, "240229120000Z"},
      {V_ASN1_GENERALIZEDTIME, "2024022912000 Z"},
      {V_ASN1_UTCTIME, "2402291200Z"},
      {V_ASN1_UTCTIME, "240229130000+0100"},
      {V_ASN1_UTCTIME, "20240229120000Z"},
      {V_ASN1_OCTET_STRING, "20240229120000Z"},
  };
  for (const auto& row : rows) EXPECT_EQ(read(row.type, row.text), std::nullopt) << row.text;
  EXPECT_EQ(strictTime(nullptr), std::nullopt);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
