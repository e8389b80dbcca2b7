// A report on one line.
#pragma once

#include <pkx509/VerificationReport.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

// Of at most VerificationReport::kMaximumLine octets, fit for a log or a terminal. Rule, depth and what to
// do are always on it; names that are too long lose their middle, and long places after them.
std::string lineOf(const VerificationReport& report);

// With what is unfit to show, and what is not UTF-8, as \HH. Of more than `limit` octets the middle is
// left out, which is what tells the least of names, files and URIs.
std::string shortened(std::string_view text, std::size_t limit);

// "2026-11-02T05:00:00Z"; the seconds since the epoch where the calendar has no such year.
std::string timeText(const Time& time);

// "3 days", "2 hours": the largest unit that fits, rounded down.
std::string durationText(std::int64_t seconds);

// Where something came from, for people: "from http://...", "file /...", "from the message".
std::string originText(const VerificationReport::Origin& origin);

}  // namespace Velantrix::Crypto::PKX509
