#include "foundation/openssl/TimeSeconds.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <chrono>
#include <cstddef>
#include <ctime>
#include <string_view>

namespace Velantrix::Crypto {

namespace {

std::int64_t secondsSinceEpoch(const std::chrono::year_month_day& date, int hour, int minute,
                               int second) noexcept {
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return ((days * 24 + hour) * 60 + minute) * 60 + second;
}

// Two digits; what is none makes the number one that no field takes.
int twoDigits(std::string_view text, std::size_t at) noexcept {
  const int tens = text[at] - '0';
  const int ones = text[at + 1] - '0';
  const bool digits = tens >= 0 && tens <= 9 && ones >= 0 && ones <= 9;
  return digits ? tens * 10 + ones : -100'000;
}

// As RFC 5280 has them written (4.1.2.5.1, 4.1.2.5.2), and nearly everybody does: YYMMDDHHMMSSZ and
// YYYYMMDDHHMMSSZ. Nothing for all else. OpenSSL's own reading costs as much as all the rest of a look
// at a certificate's validity.
std::optional<std::int64_t> usualTime(int type, std::string_view text) noexcept {
  const bool isShort = type == V_ASN1_UTCTIME;
  if (!isShort && type != V_ASN1_GENERALIZEDTIME) return std::nullopt;
  if (text.size() != (isShort ? 13U : 15U) || text.back() != 'Z') return std::nullopt;
  int year = twoDigits(text, 0);
  std::size_t at = 2;
  if (isShort) {
    year += year < 50 ? 2000 : 1900;
  } else {
    year = year * 100 + twoDigits(text, at);
    at += 2;
  }
  const int month = twoDigits(text, at);
  const int day = twoDigits(text, at + 2);
  const int hour = twoDigits(text, at + 4);
  const int minute = twoDigits(text, at + 6);
  const int second = twoDigits(text, at + 8);
  if (year < 0 || month < 0 || day < 0 || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
      second < 0 || second > 59) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned int>(month)),
                                         std::chrono::day(static_cast<unsigned int>(day))};
  if (!date.ok()) return std::nullopt;
  return secondsSinceEpoch(date, hour, minute, second);
}

}  // namespace

std::optional<std::int64_t> secondsOf(const ASN1_TIME* time) noexcept {
  if (time == nullptr) return std::nullopt;
  const int type = ASN1_STRING_type(time);
  const std::string_view text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(time)),
                              static_cast<std::size_t>(ASN1_STRING_length(time)));
  if (const auto usual = usualTime(type, text)) return usual;
  const ErrorScope errors;
  std::tm broken{};
  if ((type != V_ASN1_UTCTIME && type != V_ASN1_GENERALIZEDTIME) ||
      ASN1_TIME_to_tm(time, &broken) != 1) {
    return std::nullopt;
  }
  // tm is in UTC; mktime would read it in the local zone.
  const std::chrono::year_month_day date(
      std::chrono::year(broken.tm_year + 1900),
      std::chrono::month(static_cast<unsigned int>(broken.tm_mon) + 1),
      std::chrono::day(static_cast<unsigned int>(broken.tm_mday)));
  return secondsSinceEpoch(date, broken.tm_hour, broken.tm_min, broken.tm_sec);
}

}  // namespace Velantrix::Crypto
