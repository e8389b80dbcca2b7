#include "foundation/crlindex/CRLEntry.h"
#include "foundation/model/StrictTime.h"
#include "foundation/openssl/Der.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto {
namespace {

using namespace std::string_literals;

std::string element(int tag, const std::string& content) {
  std::string out;
  appendDer(out, tag, tag == V_ASN1_SEQUENCE, content);
  return out;
}

const std::string kDate = element(V_ASN1_UTCTIME, "260131235959Z");
const std::string kNumber = element(V_ASN1_INTEGER, "\x07");
const std::string kReason = "\x30\x0a\x06\x03\x55\x1d\x15\x04\x03\x0a\x01\x04"s;
const std::string kIssuer = "\x30\x0e\x06\x03\x55\x1d\x1d\x01\x01\xff\x04\x04\x30\x02\x81\x00"s;
const std::string kOther = "\x30\x0a\x06\x03\x55\x1d\x18\x04\x03\x0a\x01\x04"s;

std::string entryOf(const std::string& serial, const std::string& date,
                    const std::string& extensions = {}) {
  return element(V_ASN1_SEQUENCE,
                 serial + date + (extensions.empty() ? "" : element(V_ASN1_SEQUENCE, extensions)));
}

// What is read is the same where octets enough follow for it to be read at once, and where none do.
std::optional<CRLEntry> read(const std::string& octets, std::size_t entrySize = 0) {
  CRLEntry alone;
  CRLEntry first;
  const std::string longer = octets + std::string(100, '\0');
  const unsigned char* const begin = Crypto::octets(octets);
  const bool isRead = readCRLEntry(begin, begin + octets.size(), alone);
  const unsigned char* const other = Crypto::octets(longer);
  EXPECT_EQ(readCRLEntry(other, other + longer.size(), first), isRead);
  if (!isRead) return std::nullopt;
  EXPECT_EQ(alone.serial, first.serial);
  EXPECT_EQ(alone.reason, first.reason);
  EXPECT_EQ(alone.hasExtensions, first.hasExtensions);
  EXPECT_EQ(alone.end - begin, first.end - other);
  EXPECT_EQ(alone.end - begin,
            static_cast<std::ptrdiff_t>(entrySize == 0 ? octets.size() : entrySize));
  EXPECT_EQ(serialOfCRLEntry(begin, begin + octets.size()), alone.serial);
  alone.begin = nullptr;
  alone.end = nullptr;
  alone.serial = {};
  return alone;
}

TEST(CRLEntry, ReasonAlone_IsRead) {
  const auto entry = read(entryOf(kNumber, kDate, kReason));
  ASSERT_TRUE(entry.has_value());
  EXPECT_TRUE(entry->hasExtensions);
  EXPECT_EQ(entry->reason, 4);
  EXPECT_FALSE(entry->unhandledCritical);
  EXPECT_TRUE(entry->certificateIssuer.empty());
}

TEST(CRLEntry, WithoutExtensions_HasNoReason) {
  const auto entry = read(entryOf(kNumber, kDate));
  ASSERT_TRUE(entry.has_value());
  EXPECT_FALSE(entry->hasExtensions);
  EXPECT_EQ(entry->reason, CRLEntry::kNoReason);
}

TEST(CRLEntry, SeveralExtensions_AreAllRead) {
  const auto entry = read(entryOf(kNumber, kDate, kOther + kIssuer + kReason));
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->reason, 4);
  EXPECT_FALSE(entry->unhandledCritical);
  EXPECT_EQ(entry->certificateIssuer.size(), 4U);
}

TEST(CRLEntry, CriticalExtension_IsUnhandledButForTheIssuer) {
  const auto entry = read(
      entryOf(kNumber, kDate, "\x30\x0d\x06\x03\x55\x1d\x15\x01\x01\xff\x04\x03\x0a\x01\x04"s));
  ASSERT_TRUE(entry.has_value());
  EXPECT_TRUE(entry->unhandledCritical);
}

TEST(CRLEntry, WhatEverybodyReadsAlike_IsRead) {
  const std::string right[] = {
      entryOf(element(V_ASN1_INTEGER, "\0"s), kDate),
      entryOf(element(V_ASN1_INTEGER, "\xff"s), kDate),
      entryOf(element(V_ASN1_INTEGER, "\0\x80"s), kDate, kReason),
      entryOf(element(V_ASN1_INTEGER, "\xff\x7f"s), kDate),
      entryOf(element(V_ASN1_INTEGER, std::string(kMostSerialOctets, '\x11')), kDate, kReason),
      entryOf(kNumber, element(V_ASN1_GENERALIZEDTIME, "20260131235959Z"), kReason),
      entryOf(kNumber, kDate,
              kReason + element(V_ASN1_SEQUENCE,
                                element(V_ASN1_OBJECT, "\x2a") +
                                    element(V_ASN1_OCTET_STRING, std::string(300, 'x')))),
  };
  for (const std::string& one : right)
    EXPECT_TRUE(read(one).has_value()) << testing::PrintToString(one);
}

TEST(CRLEntry, WhatMayBeReadInSeveralWays_IsNotRead) {
  const std::string wrong[] = {
      "",
      "\x30",
      entryOf("", kDate),
      entryOf(kNumber, ""),
      entryOf(kNumber, kDate).substr(0, 15),
      element(V_ASN1_SET, kNumber + kDate),
      entryOf(element(V_ASN1_INTEGER, ""), kDate),
      entryOf(element(V_ASN1_INTEGER, "\0\x07"s), kDate, kReason),
      entryOf(element(V_ASN1_INTEGER, "\xff\x80"s), kDate),
      entryOf(element(V_ASN1_INTEGER, std::string(kMostSerialOctets + 1, '\x11')), kDate),
      entryOf(element(V_ASN1_ENUMERATED, "\x07"), kDate),
      // lengths: not the shortest, indefinite, beyond the end
      "\x30\x81\x12" + kNumber + kDate,
      "\x30\x80" + kNumber + kDate + "\0\0"s,
      "\x30\x13" + kNumber + kDate,
      "\x30\x13\x02\x81\x01\x07" + kDate,
      // what follows
      element(V_ASN1_SEQUENCE, kNumber + kDate + "\x05\0"s),
      element(V_ASN1_SEQUENCE, kNumber + kDate + element(V_ASN1_SEQUENCE, kReason) + "\x05\0"s),
      element(V_ASN1_SEQUENCE, kNumber + kDate + element(V_ASN1_SEQUENCE, "")),
      // extensions
      entryOf(kNumber, kDate, kReason + kReason),
      entryOf(kNumber, kDate, kIssuer + kIssuer),
      entryOf(kNumber, kDate, kReason + "\x05\0"s),
      entryOf(kNumber, kDate, "\x30\x0a\x06\x03\x55\x1d\x15\x04\x03\x02\x01\x04"s),
      entryOf(kNumber, kDate, "\x30\x0a\x06\x03\x55\x1d\x15\x04\x03\x0a\x01\x84"s),
      entryOf(kNumber, kDate, "\x30\x0b\x06\x03\x55\x1d\x15\x04\x04\x0a\x02\x00\x84"s),
      entryOf(kNumber, kDate, "\x30\x07\x06\x03\x55\x1d\x1d\x04\x00"s),
      entryOf(kNumber, kDate, "\x30\x0d\x06\x03\x55\x1d\x15\x01\x01\x00\x04\x03\x0a\x01\x04"s),
      entryOf(kNumber, kDate, "\x30\x0d\x06\x03\x55\x1d\x15\x01\x01\x01\x04\x03\x0a\x01\x04"s),
      entryOf(kNumber, kDate, "\x30\x04\x06\x00\x04\x00"s),
      entryOf(kNumber, kDate, "\x30\x05\x06\x01\x80\x04\x00"s),
      entryOf(kNumber, kDate, "\x30\x06\x06\x02\x2a\x80\x04\x00"s),
      entryOf(kNumber, kDate, "\x30\x07\x06\x03\x2a\x80\x01\x04\x00"s),
      entryOf(kNumber, kDate, "\x30\x05\x06\x01\x2a\x05\x00"s),
      entryOf(kNumber, kDate, "\x30\x07\x06\x01\x2a\x04\x00\x05\x00"s),
  };
  for (const std::string& one : wrong) {
    EXPECT_FALSE(read(one).has_value()) << testing::PrintToString(one);
  }
}

// All that is a strict time elsewhere, and nothing else.
TEST(CRLEntry, Dates_AreTheStrictTimes) {
  std::vector<std::string> texts = {"",  "2601312359Z",       "260131235959",  "260131235959+0000",
                                    "Z", "20260131235959.5Z", "26013123595:Z", "2601312359/9Z"};
  const std::string years[] = {"00",   "49",   "50",   "99",   "2000", "2100",
                               "2023", "2024", "0000", "9999", "20x0", "x000"};
  for (const std::string& year : years) {
    for (int month = 0; month <= 13; ++month) {
      for (const int day : {0, 1, 28, 29, 30, 31, 32}) {
        char text[16];
        static_cast<void>(std::snprintf(text, sizeof text, "%02d%02d", month, day));
        texts.push_back(year + text + "000000Z");
      }
    }
    for (const char* const time : {"235959", "240000", "006000", "000060", "0a0000", "00000:"}) {
      texts.push_back(year + "0101" + time + "Z");
    }
  }
  int right = 0;
  for (const std::string& text : texts) {
    for (const int type : {V_ASN1_UTCTIME, V_ASN1_GENERALIZEDTIME}) {
      const Owned<ASN1_TIME> time(ASN1_STRING_type_new(type));
      ASSERT_EQ(ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size())), 1);
      const bool strict = PKX509::isStrictTime(time.get());
      right += strict ? 1 : 0;
      EXPECT_EQ(read(entryOf(kNumber, element(type, text))).has_value(), strict) << text;
    }
  }
  EXPECT_GT(right, 300);
}

}  // namespace
}  // namespace Velantrix::Crypto
