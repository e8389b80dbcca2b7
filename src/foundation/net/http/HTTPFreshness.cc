#include "foundation/net/http/HTTPFreshness.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace Velantrix::LW::HTTP {

namespace {

using std::chrono::seconds;

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// RFC 9111, 1.2.2: what is too large is the largest. Nothing for what is no number.
std::optional<seconds> deltaSeconds(std::string_view digits) {
  std::int64_t value = 0;
  const char* const end = digits.data() + digits.size();
  const auto [read, error] = std::from_chars(digits.data(), end, value);
  if (read != end || digits.empty() || digits.front() == '-') return std::nullopt;
  if (error == std::errc::result_out_of_range) return kMaximumFreshness;
  return std::min(seconds(value), kMaximumFreshness);
}

// RFC 9111, 5.2.2. Of directives that contradict each other the shorter life counts.
std::optional<seconds> ofCacheControl(std::string text) {
  constexpr std::string_view kMaxAge = "max-age=";
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::optional<seconds> life;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t end = std::min(rest.find(','), rest.size());
    const std::string_view directive = trimmed(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (directive == "no-store" || directive == "no-cache") return seconds(0);
    if (!directive.starts_with(kMaxAge)) continue;
    // A value that is none is no leave to keep anything (4.2.1).
    const seconds said = deltaSeconds(directive.substr(kMaxAge.size())).value_or(seconds(0));
    life = std::min(life.value_or(said), said);
  }
  return life;
}

// The form of dates that is sent (RFC 9110, 5.6.7); the obsolete ones are none.
std::optional<std::chrono::sys_seconds> dateOf(const std::string& text) {
  namespace chrono = std::chrono;
  constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::array<char, 4> name{};
  unsigned int day = 0;
  int year = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int length = 0;
  // NOLINTNEXTLINE(cert-err34-c): two digits each, and four
  std::sscanf(text.c_str(), "%*3[A-Za-z], %2u %3[A-Za-z] %4d %2d:%2d:%2d GMT%n", &day, name.data(),
              &year, &hour, &minute, &second, &length);
  const auto month = std::find(kMonths.begin(), kMonths.end(), name.data());
  if (length == 0 || month == kMonths.end() || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  const chrono::year_month_day date(
      chrono::year(year), chrono::month(static_cast<unsigned int>(month - kMonths.begin() + 1)),
      chrono::day(day));
  if (!date.ok()) return std::nullopt;
  return chrono::sys_days(date) + chrono::hours(hour) + chrono::minutes(minute) + seconds(second);
}

}  // namespace

std::optional<seconds> freshnessOf(const FreshnessFields& fields) {
  if (const auto life = ofCacheControl(fields.cacheControl)) return life;
  if (fields.expires.empty()) return std::nullopt;
  // 5.3: what is no date is in the past; without a date of the answer it is of now, which is not asked.
  const auto expires = dateOf(fields.expires);
  if (!expires.has_value()) return seconds(0);
  const auto date = dateOf(fields.date);
  if (!date.has_value()) return std::nullopt;
  return std::clamp(std::chrono::duration_cast<seconds>(*expires - *date), seconds(0),
                    kMaximumFreshness);
}

}  // namespace Velantrix::LW::HTTP
