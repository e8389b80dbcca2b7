// What strangers write, as findings and on the line: a name, what servers and OpenSSL say, a place, dates.
#include "Draws.h"
#include "Fuzz.h"
#include "foundation/base/Utf8.h"
#include "report/Evidence.h"
#include "report/FindingMaker.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Fuzz::ReportTarget {
namespace {

using namespace Crypto::PKX509;
using Report = VerificationReport;
using Finding = Report::Finding;

bool isPrintable(std::string_view text) {
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    if (!character.value || isUnfitToShow(*character.value)) return false;
    text.remove_prefix(character.length);
  }
  return true;
}

Time drawTime(Draws& draws) {
  return Time::then(
      draws.pick({1'793'404'800L, 0L, -1L, 253'402'300'799L, std::numeric_limits<long>::max(),
                  std::numeric_limits<long>::min()}),
      true);
}

// A piece of the stranger's text, once or often.
std::string drawText(Draws& draws, const std::string& text) {
  const std::size_t start =
      text.empty() ? 0 : static_cast<std::size_t>(draws.below(256)) % text.size();
  const std::string piece = text.substr(start, static_cast<std::size_t>(draws.below(256)));
  std::string all;
  for (int times = draws.pick({1, 1, 2, 40, 600}); times > 0 && all.size() < 4096; --times) {
    all += piece;
  }
  return all;
}

Finding drawFinding(Draws& draws, const std::string& text, int nested) {
  constexpr int kCount = static_cast<int>(std::size(kRules));
  const auto rule = static_cast<Rule>(draws.below(kCount));
  Finding::Content content{.rule = rule, .depth = draws.pick({0, -1, 7, 12345})};
  content.certificate = {reportText(drawText(draws, text)), reportText(drawText(draws, text)),
                         reportText(drawText(draws, text))};
  FindingMaker maker(rule, draws.below(128));
  const Time checked = drawTime(draws);
  for (int i = draws.below(12); i > 0; --i) {
    const std::string_view name = DetailName::kAll[static_cast<std::size_t>(
        draws.below(static_cast<int>(std::size(DetailName::kAll))))];
    switch (draws.below(4)) {
      case 0:
        maker.add(name, drawText(draws, text));
        break;
      case 1:
        maker.add(name, static_cast<std::int64_t>(drawTime(draws).seconds()));
        break;
      case 2:
        maker.add(name, std::optional<Time>(drawTime(draws)));
        break;
      default:
        maker.addDistance(drawTime(draws), checked);
        break;
    }
  }
  content.origin = Report::Origin(static_cast<Report::Origin::Kind>(draws.below(14)),
                                  reportText(drawText(draws, text)),
                                  reportText(draws.one(2) ? drawText(draws, text) : ""));
  const Finding made = std::move(maker).make();
  content.code = made.code();
  content.details = made.details();
  for (int i = nested > 0 ? draws.below(4) : 0; i > 0; --i) {
    content.nested.push_back(drawFinding(draws, text, nested - 1));
  }
  return Finding(std::move(content));
}

std::size_t countOf(const std::vector<Finding>& findings) {
  std::size_t count = findings.size();
  for (const Finding& one : findings) {
    count += countOf(one.nested());
    for (const Report::Detail& detail : one.details()) {
      const auto* const text = std::get_if<std::string>(&detail.value);
      PKX509_ASSERT(text == nullptr || text->size() <= Report::kMaximumText);
    }
  }
  return count;
}

void check(const Report& report) {
  PKX509_ASSERT(countOf(report.findings()) <= Report::kMaximumFindings);
  PKX509_ASSERT(report.sources().size() <= Report::kMaximumSources);
  std::size_t size = 0;
  for (const Report::Source& source : report.sources()) {
    size += source.origin().size() + source.reason().size();
  }
  PKX509_ASSERT(size <= Report::kMaximumSize);
  PKX509_ASSERT(report.valid() == (report.outcome() == Outcome::kValid));
  const std::string line = report.line();
  PKX509_ASSERT(line.size() <= Report::kMaximumLine);
  PKX509_ASSERT(isPrintable(line));
  if (report.valid()) {
    PKX509_ASSERT(line.starts_with("valid"));
  } else {
    const RuleFacts& facts = factsOf(report.findings().front().rule());
    PKX509_ASSERT(line.starts_with(std::string(facts.name) + ": "));
    PKX509_ASSERT(line.ends_with(facts.advice));
  }
}

}  // namespace

PKX509_FUZZ_TARGET(report) {
  begin();
  // The choices come first, what the stranger wrote behind them.
  const std::size_t half = size / 2;
  Draws draws(data, half);
  const std::string written = text(data + half, size - half);

  Evidence evidence;
  evidence.verified = true;
  evidence.code = draws.pick({X509_V_ERR_UNSPECIFIED, X509_V_OK, X509_V_ERR_CERT_REVOKED});
  evidence.earlierStands = true;
  evidence.earlier = drawFinding(draws, written, 3);
  for (int i = draws.below(40); i > 0; --i) {
    evidence.sources.add({.kind = static_cast<Report::Source::Kind>(draws.below(6)),
                          .origin = drawText(draws, written),
                          .result = static_cast<Report::Source::Result>(draws.below(5)),
                          .facts = {.reason = drawText(draws, written)}});
  }
  if (draws.one(2)) {
    evidence.thrown = {Evidence::Thrown::Kind::kOther, drawText(draws, written)};
    evidence.earlierStands = draws.one(2);
  }
  check(makeReport(evidence, {.checked = drawTime(draws)}));
  // As it stands.
  check(Report(Report::Content{.code = 1, .findings = {drawFinding(draws, written, 2)}}));
  return 0;
}

}  // namespace Velantrix::Fuzz::ReportTarget
