#include "foundation/net/http/HTTPFreshness.h"

#include <gtest/gtest.h>
#include <optional>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using LW::HTTP::FreshnessFields;
using LW::HTTP::freshnessOf;

TEST(HTTPFreshness, Life_IsWhatTheFieldsSay) {
  const char* const date = "Sun, 06 Nov 1994 08:49:37 GMT";
  const struct {
    const char* what;
    FreshnessFields fields;
    std::optional<std::chrono::seconds> expected;
  } rows[] = {
      {"nothing", {}, std::nullopt},
      {"a minute", {.cacheControl = "max-age=60"}, 60s},
      {"among others", {.cacheControl = "public,\tMax-Age=60 , immutable"}, 60s},
      {"the shorter of two", {.cacheControl = "max-age=60, max-age=5, max-age=70"}, 5s},
      {"not at all", {.cacheControl = "max-age=60, no-store"}, 0s},
      {"only when asked", {.cacheControl = "no-cache"}, 0s},
      {"for others", {.cacheControl = "s-maxage=60, x-max-age=70"}, std::nullopt},
      {"a day at most", {.cacheControl = "max-age=86401"}, 24h},
      {"beyond numbers", {.cacheControl = "max-age=99999999999999999999"}, 24h},
      {"no number", {.cacheControl = "max-age=x"}, 0s},
      {"half a number", {.cacheControl = "max-age=5s"}, 0s},
      {"before now", {.cacheControl = "max-age=-5"}, 0s},
      {"no digits", {.cacheControl = "max-age="}, 0s},
      {"until then", {.expires = "Sun, 06 Nov 1994 09:49:37 GMT", .date = date}, 1h},
      {"over a year", {.expires = "Mon, 01 Jan 1996 00:00:00 GMT", .date = date}, 24h},
      {"past", {.expires = "Sun, 06 Nov 1994 07:49:37 GMT", .date = date}, 0s},
      {"no date", {.expires = "0", .date = date}, 0s},
      {"no day", {.expires = "Sun, 31 Feb 1994 07:49:37 GMT", .date = date}, 0s},
      {"no month", {.expires = "Sun, 06 Nox 1994 07:49:37 GMT", .date = date}, 0s},
      {"no hour", {.expires = "Sun, 07 Nov 1994 24:00:00 GMT", .date = date}, 0s},
      {"half a date", {.expires = "Sun, 07 Nov 1994 07:49", .date = date}, 0s},
      {"from when", {.expires = date}, std::nullopt},
      {"what is said first",
       {.cacheControl = "max-age=60", .expires = "Sun, 06 Nov 1994 09:49:37 GMT", .date = date},
       60s},
  };
  for (const auto& row : rows) EXPECT_EQ(freshnessOf(row.fields), row.expected) << row.what;
}

}  // namespace
}  // namespace Velantrix::Test
