#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/TimeSeconds.h"

#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace Velantrix::Crypto {
namespace {

Owned<ASN1_STRING> timeWith(int type, const std::string& text) {
  Owned<ASN1_STRING> time(ASN1_STRING_type_new(type));
  EXPECT_EQ(ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size())), 1);
  return time;
}

// OpenSSL's reading, by another way to the seconds.
std::optional<std::int64_t> readByOpenSSL(const ASN1_TIME* time) {
  const ErrorScope errors;
  std::tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return std::nullopt;
  return ::timegm(&parts);
}

void expectAsOpenSSL(int type, const std::string& text) {
  const auto time = timeWith(type, text);
  EXPECT_EQ(secondsOf(time.get()), readByOpenSSL(time.get())) << type << " " << text;
}

TEST(TimeSeconds, Times_AreThoseOfOpenSSL) {
  for (const char* const text : {"700101000000Z",
                                 "491231235959Z",
                                 "500101000000Z",
                                 "240229120000Z",
                                 "250229120000Z",
                                 "240230000000Z",
                                 "240631000000Z",
                                 "241301000000Z",
                                 "240001000000Z",
                                 "240100000000Z",
                                 "240101240000Z",
                                 "240101006000Z",
                                 "240101000060Z",
                                 "2401010000Z",
                                 "240101000000+0100",
                                 "240101000000",
                                 "24010100000:Z",
                                 "24 101000000Z",
                                 "-40101000000Z",
                                 "",
                                 "Z"}) {
    expectAsOpenSSL(V_ASN1_UTCTIME, text);
  }
  for (const char* const text :
       {"19700101000000Z", "20500101000000Z", "99991231235959Z", "00000101000000Z",
        "00000229000000Z", "19000229000000Z", "20000229000000Z", "20240101000000.5Z",
        "20240101000000", "20240101000000-0530", "202401010000Z", "2024010100000/Z", "Z"}) {
    expectAsOpenSSL(V_ASN1_GENERALIZEDTIME, text);
  }
}

TEST(TimeSeconds, AnythingLikeATime_IsTakenAsOpenSSLTakesIt) {
  std::mt19937 random(1);
  const std::string characters = "0012345679999Z:+ ";
  for (int i = 0; i < 20'000; ++i) {
    const bool isShort = i % 2 == 0;
    std::string text = isShort ? "240630123059Z" : "20240630123059Z";
    for (int changes = 0; changes < 2; ++changes) {
      text[random() % text.size()] = characters[random() % characters.size()];
    }
    expectAsOpenSSL(isShort ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME, text);
  }
}

TEST(TimeSeconds, WhatIsNoTime_HasNone) {
  EXPECT_EQ(secondsOf(nullptr), std::nullopt);
  EXPECT_EQ(secondsOf(timeWith(V_ASN1_OCTET_STRING, "240101000000Z").get()), std::nullopt);
}

}  // namespace
}  // namespace Velantrix::Crypto
