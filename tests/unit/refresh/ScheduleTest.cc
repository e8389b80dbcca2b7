#include "refresh/Schedule.h"
#include "support/Handles.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using std::chrono::hours;
using std::chrono::minutes;

constexpr std::int64_t kHour = 3600;

Time at(std::int64_t hour) { return Time::then(1'800'000'000 + hour * kHour, true); }
double hoursAfter(const Time& time) {
  return static_cast<double>(time.seconds() - at(0).seconds()) / kHour;
}

const Uri kListed("http://crl.example/ca.crl");
const Schedule::Life kLife{.thisUpdate = at(0), .nextUpdate = at(100)};

TEST(Schedule, FirstDue_IsAtTheShareAndAtMostATenthBesideIt) {
  const double due = hoursAfter(Schedule::dueAt(kListed, kLife, 0.5, at(0)));
  EXPECT_GE(due, 40);
  EXPECT_LE(due, 60);
  EXPECT_NE(due, 50);  // of this URI
  EXPECT_FALSE(Schedule::isDue(kListed, kLife, 0.5, at(40)));
  EXPECT_TRUE(Schedule::isDue(kListed, kLife, 0.5, at(60)));
}

TEST(Schedule, SameURIAndPeriod_AreDueAtTheSameTimeAlways) {
  const Time due = Schedule::dueAt(kListed, kLife, 0.5, at(0));
  EXPECT_EQ(Schedule::dueAt(Uri("HTTP://crl.example:80/x/../ca.crl"), kLife, 0.5, at(70)), due);
  // By this value, which no change of the machine or the build may move.
  EXPECT_NEAR(Schedule::shareFor(kListed, at(0), 0.5), 0.4507937315, 1e-9);
  EXPECT_NE(Schedule::shareFor(kListed, at(1), 0.5), Schedule::shareFor(kListed, at(0), 0.5));
  EXPECT_NE(Schedule::shareFor(Uri("http://crl.example/cb.crl"), at(0), 0.5),
            Schedule::shareFor(kListed, at(0), 0.5));
}

TEST(Schedule, ThousandURIs_AreSpreadEvenly) {
  std::array<int, 20> histogram{};
  for (int i = 0; i < 1000; ++i) {
    const Uri uri("http://crl.example/ca" + std::to_string(i) + ".crl");
    const double share = Schedule::shareFor(uri, at(0), 0.5);
    ASSERT_GE(share, 0.4);
    ASSERT_LT(share, 0.6);
    ++histogram.at(static_cast<std::size_t>((share - 0.4) * 100));
  }
  std::string shown;
  for (const int count : histogram) shown += std::to_string(count) + ' ';
  RecordProperty("histogram", shown);
  // 50 are expected in each; 5 standard deviations are 35.
  EXPECT_GE(*std::min_element(histogram.begin(), histogram.end()), 15) << shown;
  EXPECT_LE(*std::max_element(histogram.begin(), histogram.end()), 85) << shown;
}

TEST(Schedule, SharesNearTheEnds_StayWithinTheLife) {
  for (const double share : {0.0, 0.01, 0.99, 1.0, -3.0, 7.0}) {
    for (int i = 0; i < 50; ++i) {
      const Uri uri("http://crl.example/" + std::to_string(i));
      const double moved = Schedule::shareFor(uri, at(i), share);
      EXPECT_GE(moved, 0) << share;
      EXPECT_LE(moved, 1) << share;
      EXPECT_NEAR(moved, std::clamp(share, 0.0, 1.0), 0.005) << share;
    }
  }
  const double none = Schedule::shareFor(kListed, at(0), std::numeric_limits<double>::quiet_NaN());
  EXPECT_NEAR(none, 0.5, Schedule::kSpread);
}

TEST(Schedule, WhatHasRunOut_IsDueWhateverWasConfirmed) {
  Schedule::Life life = kLife;
  life.confirmed = at(100);
  EXPECT_TRUE(Schedule::isDue(kListed, life, 0.5, at(100)));
  EXPECT_TRUE(Schedule::isDue(kListed, kLife, 1, at(100)));
}

TEST(Schedule, ConfirmedWhenItWasDue_IsDueAgainAfterTheSamePartOfTheRest) {
  Schedule::Life life{.thisUpdate = at(0), .nextUpdate = at(10), .confirmed = at(7)};
  const double due = hoursAfter(Schedule::dueAt(kListed, life, 0.5, at(7)));
  EXPECT_GE(due, 7 + 3 * 0.4);
  EXPECT_LE(due, 7 + 3 * 0.6);
  EXPECT_FALSE(Schedule::isDue(kListed, life, 0.5, at(8)));

  life.nextUpdate = at(1000);
  life.confirmed = at(700);
  EXPECT_EQ(Schedule::dueAt(kListed, life, 0.5, at(700)), Schedule::after(at(700), hours(6)));
  life.confirmed = Time::then(at(1000).seconds() - 60, true);
  EXPECT_EQ(Schedule::dueAt(kListed, life, 0.5, *life.confirmed),
            Schedule::after(*life.confirmed, minutes(5)));
}

TEST(Schedule, ConfirmationBeforeItWasDueOrOfTheFuture_ChangesNothing) {
  const Time due = Schedule::dueAt(kListed, kLife, 0.5, at(70));
  for (const std::int64_t hour : {0, 30, 90}) {
    Schedule::Life life = kLife;
    life.confirmed = at(hour);
    EXPECT_EQ(Schedule::dueAt(kListed, life, 0.5, at(70)), due) << hour;
  }
}

TEST(Schedule, MoreThanADay_IsDueADayAndAQuarterBeforeTheEndAtTheLatest) {
  for (int i = 0; i < 50; ++i) {
    const Uri uri("http://crl.example/" + std::to_string(i));
    const auto dueOf = [&](std::int64_t life, double share) {
      return hoursAfter(
          Schedule::dueAt(uri, {.thisUpdate = at(0), .nextUpdate = at(life)}, share, at(0)));
    };
    EXPECT_GE(dueOf(48, 0.5), 12);
    EXPECT_LE(dueOf(48, 0.5), 18);
    EXPECT_GE(dueOf(168, 0.95), 132);
    EXPECT_LE(dueOf(168, 0.95), 138);
    EXPECT_EQ(dueOf(32, 0.5), 8);  // a quarter of it
    EXPECT_GE(dueOf(24, 0.5), 9.6);
  }
}

TEST(Schedule, LifeWithoutLength_IsDueAtOnce) {
  EXPECT_TRUE(Schedule::isDue(kListed, {.thisUpdate = at(5), .nextUpdate = at(3)}, 0.5, at(5)));
}

TEST(Schedule, CRLWithoutNextUpdate_LivesForADay) {
  const Issued ca = issueCA("CN=CA");
  const auto crl = crlHandle({.issuer = &ca, .nextUpdate = std::nullopt});
  const Schedule::Life life = Schedule::lifeOf(*crl.get(), at(1));
  EXPECT_EQ(life.nextUpdate.seconds() - life.thisUpdate.seconds(), 24 * kHour);
  EXPECT_EQ(life.confirmed, at(1));
}

}  // namespace
}  // namespace Velantrix::Test
