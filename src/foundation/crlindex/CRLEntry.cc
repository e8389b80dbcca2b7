#include "foundation/crlindex/CRLEntry.h"

#include "foundation/crlindex/StrictDer.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace Velantrix::Crypto {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kReasonExtension = "\x55\x1d\x15"sv;  // 2.5.29.21
constexpr std::string_view kIssuerExtension = "\x55\x1d\x1d"sv;  // 2.5.29.29

// X.690, 8.3.2 and 8.19: the shortest form.
bool isInteger(const DerElement& value) noexcept {
  if (value.size() == 0 || value.size() > kMostSerialOctets) return false;
  if (value.size() == 1) return true;
  const bool negative = (value.content[1] & 0x80) != 0;
  return value.content[0] != (negative ? 0xff : 0x00);
}

bool isObject(const DerElement& value) noexcept {
  bool atStart = true;
  for (const unsigned char* octet = value.content; octet != value.end; ++octet) {
    if (atStart && *octet == 0x80) return false;
    atStart = (*octet & 0x80) == 0;
  }
  return value.size() > 0 && atStart;
}

// Eight octets as a number, the first of them lowest.
std::uint64_t eightOctets(const unsigned char* text) noexcept {
  std::uint64_t octets = 0;
  std::memcpy(&octets, text, sizeof octets);
  if constexpr (std::endian::native == std::endian::big) octets = __builtin_bswap64(octets);
  return octets;
}

// What four pairs of digits stand for, in 16 bits each; false where there is another octet.
bool readPairs(const unsigned char* text, std::uint64_t& pairs) noexcept {
  constexpr std::uint64_t kHigh = 0xf0f0f0f0f0f0f0f0;
  constexpr std::uint64_t kZeros = 0x3030303030303030;
  constexpr std::uint64_t kBeyondNine = 0x0606060606060606;
  constexpr std::uint64_t kLanes = 0x00ff00ff00ff00ff;
  const std::uint64_t octets = eightOctets(text);
  if ((octets & kHigh) != kZeros || ((octets + kBeyondNine) & kHigh) != kZeros) return false;
  const std::uint64_t digits = octets - kZeros;
  pairs = (digits * 10 + (digits >> 8)) & kLanes;
  return true;
}

unsigned int laneOf(std::uint64_t pairs, unsigned int lane) noexcept {
  return static_cast<unsigned int>(pairs >> (16 * lane)) & 0xff;
}

unsigned int daysOf(unsigned int year, unsigned int month) noexcept {
  static constexpr std::array<unsigned char, 12> kDays = {31, 28, 31, 30, 31, 30,
                                                          31, 31, 30, 31, 30, 31};
  const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  return kDays[month - 1] + (month == 2 && leap ? 1U : 0U);
}

// The digits of a UTCTime in the century.
bool isDate(const unsigned char* text, unsigned int century) noexcept {
  constexpr unsigned int kInEveryMonth = 28;
  std::uint64_t first = 0;   // year, month, day, hour
  std::uint64_t second = 0;  // day, hour, minute, second
  if (!readPairs(text, first) || !readPairs(text + 4, second)) return false;
  const unsigned int month = laneOf(first, 1);
  const unsigned int day = laneOf(first, 2);
  return century < 100 && month - 1 < 12 && day > 0 &&
         (day <= kInEveryMonth || day <= daysOf(century * 100 + laneOf(first, 0), month)) &&
         laneOf(first, 3) < 24 && laneOf(second, 2) < 60 && laneOf(second, 3) < 60;
}

constexpr std::size_t kUTCTime = 13;  // YYMMDDHHMMSSZ

// 4.1.2.5.1
unsigned int centuryOfUTCTime(const unsigned char* text) noexcept {
  return text[0] < '5' ? 20 : 19;
}

// The first two digits of the year; beyond 99 where they are none.
unsigned int centuryOf(const unsigned char* text) noexcept {
  const unsigned int tens = text[0] - unsigned{'0'};
  const unsigned int ones = text[1] - unsigned{'0'};
  return tens > 9 || ones > 9 ? 100 : tens * 10 + ones;
}

// 5.1.2.6, 4.1.2.5.1 and 4.1.2.5.2: a GeneralizedTime has two digits more.
bool isDate(const DerElement& date) noexcept {
  const bool inFull = date.tag == kDerGeneralizedTime;
  if (!inFull && date.tag != kDerUTCTime) return false;
  if (date.size() != kUTCTime + (inFull ? 2 : 0) || date.end[-1] != 'Z') return false;
  const unsigned char* const text = date.end - kUTCTime;
  return isDate(text, inFull ? centuryOf(date.content) : centuryOfUTCTime(text));
}

// 5.3.1, as every list has it. A number below 0 is no reason, and one of two octets is none either.
bool readReason(std::string_view value, CRLEntry& entry) noexcept {
  if (entry.reason != CRLEntry::kNoReason || value.size() != 3 || !value.starts_with("\x0a\x01") ||
      (value[2] & 0x80) != 0) {
    return false;
  }
  entry.reason = value[2];
  return true;
}

bool readExtension(const DerElement& extension, CRLEntry& entry) noexcept {
  const unsigned char* position = extension.content;
  const DerElement type = takeElement(kDerObject, position, extension.end);
  if (!type || !isObject(type)) return false;
  const DerElement critical = takeElement(kDerBoolean, position, extension.end);
  // FALSE is the default, and not written (X.690, 11.5).
  if (critical && critical.text() != "\xff"sv) return false;
  const DerElement value = takeElement(kDerOctetString, position, extension.end);
  if (!value || position != extension.end) return false;
  if (type.text() == kIssuerExtension) {
    if (!entry.certificateIssuer.empty() || value.size() == 0) return false;
    entry.certificateIssuer = value.text();
    return true;
  }
  if (critical) entry.unhandledCritical = true;
  return type.text() != kReasonExtension || readReason(value.text(), entry);
}

bool readExtensions(const DerElement& extensions, CRLEntry& entry) noexcept {
  entry.hasExtensions = true;
  const unsigned char* position = extensions.content;
  if (position == extensions.end) return false;
  while (position != extensions.end) {
    const DerElement extension = takeElement(kDerSequence, position, extensions.end);
    if (!extension || !readExtension(extension, entry)) return false;
  }
  return true;
}

// What nearly all entries are: a serial number that is above 0 and does not begin with eight zeros, a
// UTCTime, and a reason or nothing. They are read here, as below, in less than half of the time. False for all
// others, whether they are right or wrong.
bool readUsualEntry(const unsigned char* position, const unsigned char* end,
                    CRLEntry& entry) noexcept {
  constexpr std::string_view kReasonAlone =
      "\x30\x0c\x30\x0a\x06\x03\x55\x1d\x15\x04\x03\x0a\x01"sv;
  constexpr std::size_t kBeforeSerial = 4;
  constexpr std::size_t kDate = 2 + kUTCTime;
  constexpr std::size_t kExtensions = kReasonAlone.size() + 1;
  constexpr std::size_t kMost = kBeforeSerial + kMostSerialOctets + kDate + kExtensions;
  if (static_cast<std::size_t>(end - position) < kMost) return false;
  const std::size_t size = std::size_t{2} + position[1];
  const std::size_t serial = position[3];
  if (position[0] != kDerSequence || position[2] != kDerInteger ||
      serial - 1 >= kMostSerialOctets || position[4] - 1U >= 0x7f) {
    return false;
  }
  const unsigned char* const date = position + kBeforeSerial + serial;
  if (date[0] != kDerUTCTime || date[1] != kUTCTime || date[kDate - 1] != 'Z' ||
      !isDate(date + 2, centuryOfUTCTime(date + 2))) {
    return false;
  }
  entry.end = position + size;
  entry.serial = {reinterpret_cast<const char*>(position) + kBeforeSerial, serial};
  const std::size_t soFar = kBeforeSerial + serial + kDate;
  if (size == soFar) return true;
  const unsigned char* const extensions = date + kDate;
  const unsigned char reason = extensions[kReasonAlone.size()];
  if (size != soFar + kExtensions || reason >= 0x80 ||
      std::memcmp(extensions, kReasonAlone.data(), kReasonAlone.size()) != 0) {
    return false;
  }
  entry.hasExtensions = true;
  entry.reason = reason;
  return true;
}

}  // namespace

bool readCRLEntry(const unsigned char* position, const unsigned char* end,
                  CRLEntry& entry) noexcept {
  entry = CRLEntry();
  entry.begin = position;
  if (readUsualEntry(position, end, entry)) return true;
  const DerElement whole = takeElement(kDerSequence, position, end);
  if (!whole) return false;
  entry.end = whole.end;
  position = whole.content;
  const DerElement serial = takeElement(kDerInteger, position, whole.end);
  if (!serial || !isInteger(serial)) return false;
  entry.serial = serial.text();
  const DerElement date = strictElement(position, whole.end);
  if (!date || !isDate(date)) return false;
  if (date.end == whole.end) return true;
  position = date.end;
  const DerElement extensions = takeElement(kDerSequence, position, whole.end);
  return extensions && position == whole.end && readExtensions(extensions, entry);
}

std::string_view serialOfCRLEntry(const unsigned char* position,
                                  const unsigned char* end) noexcept {
  const DerElement whole = strictElement(position, end);
  const DerElement serial = whole ? strictElement(whole.content, whole.end) : DerElement();
  return serial.text();
}

}  // namespace Velantrix::Crypto
