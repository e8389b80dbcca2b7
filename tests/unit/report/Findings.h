// Findings and reports for tests, made of their parts.
//
//   EXPECT_EQ(lineOf(failed({.rule = Rule::kExpired, .details = {{DetailName::kNotAfter, at(2026, 1, 11)}}})),
//             "expired: CN=Anna (depth 0, serial 5F01) since 2026-01-11T00:00:00Z; ...");
#pragma once

#include "foundation/base/Utf8.h"
#include "report/DetailNames.h"
#include "report/Line.h"
#include "report/ReportContent.h"

#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Test {

using Crypto::PKX509::Outcome;
using Crypto::PKX509::Rule;
using Crypto::PKX509::RuleFacts;
using Report = Crypto::PKX509::VerificationReport;
using Finding = Report::Finding;
using Details = std::vector<Report::Detail>;
namespace DetailName = Crypto::PKX509::DetailName;

inline Time at(int year, int month, int day) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  return Time::then(::timegm(&parts), true);
}

inline constexpr std::int64_t kDay = 86400;

/// About "CN=Anna" at depth 0, unless it says otherwise.
struct FindingParts {
  Rule rule = Rule::kUnexplained;
  Details details = {};
  Report::Origin origin = {};
  std::vector<Finding> nested = {};
  Report::Subject certificate = {"CN=Anna", "CN=Mail CA", "5F01"};
  int depth = 0;
  int code = 1;
};

inline Finding finding(FindingParts parts) {
  return Finding({.rule = parts.rule,
                  .depth = parts.depth,
                  .certificate = std::move(parts.certificate),
                  .code = parts.code,
                  .details = std::move(parts.details),
                  .origin = std::move(parts.origin),
                  .nested = std::move(parts.nested)});
}

/// Of a certificate of which only names and number matter.
inline std::shared_ptr<const Crypto::PKX509::CertificateFacts> certificateFacts(
    Report::Subject subject) {
  return std::make_shared<Crypto::PKX509::CertificateFacts>(
      Crypto::PKX509::CertificateFacts{.subject = std::move(subject)});
}

/// The report on a verification that failed for this.
inline Report failed(FindingParts parts) {
  return Report(Report::Content{.code = 1, .findings = {finding(std::move(parts))}});
}

/// Whether a terminal may get it: UTF-8, and nothing in it that is unfit to show.
inline bool isPrintable(std::string_view text) {
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    if (!character.value || isUnfitToShow(*character.value)) return false;
    text.remove_prefix(character.length);
  }
  return true;
}

}  // namespace Velantrix::Test
