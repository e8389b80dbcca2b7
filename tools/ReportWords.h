// The words for what a report holds: those of JSON, which stay, and those for people.
#pragma once

#include <pkx509/VerificationReport.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Velantrix::Tool {

using Crypto::PKX509::VerificationReport;

/// @name For programs: lower case and hyphens. Words may be added, and none is given away twice.
/// @{
std::string_view wordOf(VerificationReport::Origin::Kind kind) noexcept;
std::string_view wordOf(VerificationReport::RevocationResult::Status status) noexcept;
std::string_view wordOf(VerificationReport::RevocationResult::Statement::Kind kind) noexcept;
std::string_view wordOf(VerificationReport::Source::Kind kind) noexcept;
std::string_view wordOf(VerificationReport::Source::Wanted wanted) noexcept;
std::string_view wordOf(VerificationReport::Source::Result result) noexcept;
/// @}

/// RFC 3339, in UTC: "2026-11-21T05:00:00Z".
std::string timeText(const Time& time);

/// @name For people. Names and texts of strangers are in them as they are; writers escape.
/// @{

/// "12 days", of the largest unit that is not 0.
std::string durationText(std::int64_t seconds);
/// "340 us", "12 ms", "1.5 s".
std::string shortTimeText(std::uint64_t microseconds);
/// What a value of a finding is called: "CRL number" for "crlNumber".
std::string detailLabel(std::string_view detailName);
/// The value itself.
std::string valueText(const VerificationReport::Detail& detail);
/// Where something came from; empty where nothing is known of it.
std::string originText(const VerificationReport::Origin& origin);
std::string_view kindText(VerificationReport::Source::Kind kind) noexcept;
/// What a source that was asked several times, with one result, took in all.
struct Effort {
  std::size_t times = 0;
  std::size_t found = 0;
  std::uint64_t bytes = 0;
  std::uint64_t microseconds = 0;
};
/// What became of asking it: "found 2 CRLs, 840 bytes, 12 ms".
std::string resultText(const VerificationReport::Source& source, const Effort& effort);
/// "permanent: waiting does not help".
std::string outcomeText(Crypto::PKX509::Outcome outcome);

/// @}

}  // namespace Velantrix::Tool
