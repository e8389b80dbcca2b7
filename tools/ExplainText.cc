#include "ExplainText.h"

#include "ReportWords.h"
#include "Tree.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

namespace Velantrix::Tool {

using Crypto::PKX509::factsOf;
using Crypto::PKX509::Outcome;
using Crypto::PKX509::RuleFacts;

namespace {

using Finding = VerificationReport::Finding;
using Link = VerificationReport::Link;
using Paint = Tree::Paint;
using Revocation = VerificationReport::RevocationResult;
using Source = VerificationReport::Source;
using Statement = Revocation::Statement;

constexpr std::size_t kMostSources = 24;  // that a person reads; JSON has all
constexpr std::size_t kMostValue = 60;    // octets of a value among others on one line

std::string titleOf(const Finding& finding) {
  const RuleFacts& facts = factsOf(finding.rule());
  return std::string(facts.name) + ": " + std::string(facts.title);
}

Paint paintOf(Outcome outcome) {
  if (outcome == Outcome::kValid) return Paint::kGood;
  return outcome == Outcome::kPermanent ? Paint::kBad : Paint::kUncertain;
}

std::string certificateText(const Finding& finding) {
  std::string text = finding.certificate().subject();
  if (finding.depth() >= 0) text += ", depth " + std::to_string(finding.depth());
  return text;
}

// Whether the line about its origin has it anyway.
bool isInOrigin(const VerificationReport::Detail& detail, const std::string& origin) {
  if (detail.name != "uri" && detail.name != "file" && detail.name != "directory" &&
      detail.name != "lookupMethod") {
    return false;
  }
  return origin.find(valueText(detail)) != std::string::npos;
}

// The decisive one: a line for each value.
std::vector<Tree::Row> allRows(const Finding& finding) {
  std::vector<Tree::Row> rows;
  if (!finding.certificate().empty()) {
    rows.push_back({"certificate", certificateText(finding)});
    rows.push_back({"serial", finding.certificate().serial()});
  }
  const std::string from = originText(finding.origin());
  for (const VerificationReport::Detail& detail : finding.details()) {
    if (!isInOrigin(detail, from)) rows.push_back({detailLabel(detail.name), valueText(detail)});
  }
  if (!from.empty()) rows.push_back({"from", from});
  const std::string_view advice = factsOf(finding.rule()).advice;
  if (!advice.empty()) rows.push_back({"what to do", std::string(advice), Paint::kStrong});
  return rows;
}

std::string cut(const std::string& text) {
  return text.size() <= kMostValue ? text : text.substr(0, kMostValue) + "...";
}

// One of the others: all values in a row, so that the tree stays short.
std::vector<Tree::Row> fewRows(const Finding& finding) {
  std::vector<Tree::Row> rows;
  if (!finding.certificate().empty()) rows.push_back({"", certificateText(finding)});
  const std::string from = originText(finding.origin());
  std::string values;
  for (const VerificationReport::Detail& detail : finding.details()) {
    if (isInOrigin(detail, from)) continue;
    values +=
        (values.empty() ? "" : ", ") + detailLabel(detail.name) + ' ' + cut(valueText(detail));
  }
  if (!values.empty()) rows.push_back({"", std::move(values)});
  if (!from.empty()) rows.push_back({"", "from " + from});
  return rows;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as verifications are nested
Tree treeOf(const Finding& finding, bool decisive) {
  Tree tree{.title = titleOf(finding),
            .paint = decisive ? paintOf(finding.outcome()) : Paint::kNone,
            .rows = decisive ? allRows(finding) : fewRows(finding)};
  for (const Finding& one : finding.nested()) tree.below.push_back(treeOf(one, false));
  return tree;
}

// What a newer CRL says better comes last: it is true, and of no help.
std::vector<Tree> findingTrees(const VerificationReport& report) {
  std::vector<Tree> trees;
  std::vector<Tree> last;
  for (const Finding& finding : report.findings()) {
    const bool decisive = &finding == &report.findings().front() && !report.valid();
    const bool superseded = !decisive && finding.rule() == Crypto::PKX509::Rule::kCRLSuperseded;
    (superseded ? last : trees).push_back(treeOf(finding, decisive));
  }
  trees.insert(trees.end(), last.begin(), last.end());
  return trees;
}

std::string statusText(const Revocation& revocation) {
  switch (revocation.status()) {
    case Revocation::Status::kGood:
      return "not revoked";
    case Revocation::Status::kRevoked:
      break;
    case Revocation::Status::kUndetermined:
      return "could not be found out";
    case Revocation::Status::kNotNeeded:
      return "none is ever published about it (RFC 9608)";
    case Revocation::Status::kNotChecked:
      return "not checked";
  }
  std::string text = "revoked";
  if (revocation.date()) text += " at " + timeText(*revocation.date());
  return revocation.reason().empty() ? text : text + ", " + revocation.reason();
}

Paint paintOf(Revocation::Status status) {
  if (status == Revocation::Status::kRevoked) return Paint::kBad;
  if (status == Revocation::Status::kUndetermined) return Paint::kUncertain;
  return status == Revocation::Status::kGood ? Paint::kGood : Paint::kNone;
}

std::string statementText(const Statement& statement) {
  if (statement.kind == Statement::Kind::kOCSP) return "OCSP answer by " + statement.issuer;
  std::string text = statement.kind == Statement::Kind::kDeltaCRL ? "delta CRL" : "CRL";
  if (!statement.number.empty()) text += " #" + statement.number;
  return text + " of " + statement.issuer;
}

std::string periodText(const std::optional<Time>& from, const std::optional<Time>& to) {
  std::string text = from ? timeText(*from) : "?";
  return to ? text + " to " + timeText(*to) : text + ", with no end";
}

void addStatement(std::vector<Tree::Row>& rows, const Statement& statement) {
  rows.push_back({"", "says " + statementText(statement)});
  std::string period = periodText(statement.thisUpdate, statement.nextUpdate);
  if (statement.entries) {
    period += ", " + std::to_string(*statement.entries) +
              (*statement.entries == 1 ? " entry" : " entries");
  }
  rows.push_back({"", std::move(period)});
  if (std::string from = originText(statement.origin); !from.empty()) {
    rows.push_back({"", "from " + from});
  }
}

// Nobody asks about a root: it is trusted because it lies there.
bool isTrustedRoot(const Link& link) {
  using Kind = VerificationReport::Origin::Kind;
  const Kind from = link.origin().kind();
  return link.certificate().subject() == link.certificate().issuer() &&
         (from == Kind::kTrustDirectory || from == Kind::kStore) &&
         link.revocation().status() == Revocation::Status::kNotChecked;
}

std::vector<Tree::Row> rowsOf(const Link& link) {
  std::vector<Tree::Row> rows = {{"serial", link.certificate().serial()},
                                 {"valid", periodText(link.notBefore(), link.notAfter())}};
  if (std::string from = originText(link.origin()); !from.empty()) {
    rows.push_back({"from", std::move(from)});
  }
  if (isTrustedRoot(link)) return rows;
  rows.push_back(
      {"revocation", statusText(link.revocation()), paintOf(link.revocation().status())});
  for (const Statement& statement : link.revocation().decidedBy()) addStatement(rows, statement);
  return rows;
}

std::vector<Tree> pathTrees(const VerificationReport& report) {
  const std::vector<Link>& path = report.path();
  std::vector<Tree> trees;
  for (std::size_t depth = 0; depth < path.size(); ++depth) {
    const VerificationReport::Subject& certificate = path[depth].certificate();
    Tree tree{.lead = std::to_string(depth),
              .title = certificate.subject(),
              .paint = Paint::kStrong,
              .rows = rowsOf(path[depth])};
    // Of the others the next one is the issuer.
    if (depth + 1 == path.size() && certificate.issuer() != certificate.subject()) {
      tree.rows.insert(tree.rows.begin(), {"issuer", certificate.issuer(), Paint::kUncertain});
    }
    if (!report.valid() && !report.findings().empty()) {
      const Finding& decisive = report.findings().front();
      if (decisive.depth() == static_cast<int>(depth)) {
        tree.rows.push_back({"finding", titleOf(decisive), paintOf(decisive.outcome())});
      }
    }
    trees.push_back(std::move(tree));
  }
  return trees;
}

bool isFailure(const Source& source) {
  return source.result() != Source::Result::kFound && source.result() != Source::Result::kNothing;
}

// One source with one result, however often it was asked.
struct AskedSource {
  Source source;  // the first time
  Effort effort;

  bool isSame(const Source& other) const {
    return source.kind() == other.kind() && source.wanted() == other.wanted() &&
           source.origin() == other.origin() && source.result() == other.result() &&
           source.reason() == other.reason() && source.httpStatus() == other.httpStatus() &&
           source.errorNumber() == other.errorNumber();
  }
  void add(const Source& again) {
    ++effort.times;
    if (!again.fromMemory() || effort.times == 1) effort.found += again.found();
    effort.bytes += again.bytes();
    effort.microseconds += again.microseconds();
  }
};

std::vector<AskedSource> askedSources(const VerificationReport& report) {
  std::vector<AskedSource> all;
  for (const Source& source : report.sources()) {
    const auto same = [&](const AskedSource& one) { return one.isSame(source); };
    auto place = std::find_if(all.begin(), all.end(), same);
    if (place == all.end()) place = all.insert(all.end(), {source, {}});
    place->add(source);
  }
  return all;
}

// Those that failed come first.
std::vector<Tree> sourceTrees(const VerificationReport& report) {
  std::vector<AskedSource> sources = askedSources(report);
  std::stable_partition(sources.begin(), sources.end(),
                        [](const AskedSource& one) { return isFailure(one.source); });
  std::vector<Tree> trees;
  for (const auto& [source, effort] : sources) {
    const Paint paint = isFailure(source) ? Paint::kUncertain : Paint::kNone;
    trees.push_back({.lead = std::string(kindText(source.kind())),
                     .title = source.origin(),
                     .rows = {{"", resultText(source, effort), paint}}});
  }
  return trees;
}

std::string totalsText(const VerificationReport::Totals& totals) {
  std::string text = "took " + shortTimeText(totals.microseconds);
  if (totals.networkMicroseconds != 0) {
    text += ", of these " + shortTimeText(totals.networkMicroseconds) + " on the network";
  }
  text += "; look-ups of CRLs: " + std::to_string(totals.lookups);
  if (totals.networkBytes != 0) {
    text += "; bytes of CRLs fetched: " + std::to_string(totals.networkBytes);
  }
  return text;
}

std::string leftOutText(const VerificationReport& report, std::size_t unshown) {
  std::string text;
  const auto add = [&text](std::size_t number, const char* what) {
    if (number == 0) return;
    text += (text.empty() ? "left out: " : ", ") + std::to_string(number) + ' ' + what;
  };
  add(report.pathLeftOut(), "of the path");
  add(report.findingsLeftOut(), "of the findings");
  add(report.sourcesLeftOut() + unshown, "of the sources");
  return text;
}

// Nothing where there are no trees.
std::string section(const std::string& heading, const std::vector<Tree>& trees,
                    const TextStyle& style) {
  if (trees.empty()) return {};
  return "  " + painted(heading, Paint::kStrong, style) + '\n' + treeText(trees, style);
}

}  // namespace

std::string explainText(const VerificationReport& report, const TextStyle& style) {
  std::vector<Tree> sources = sourceTrees(report);
  const std::size_t unshown = sources.size() - std::min(sources.size(), kMostSources);
  sources.resize(sources.size() - unshown);

  const std::string findings =
      section(report.valid() ? "what did not count" : "why", findingTrees(report), style);
  const std::string path =
      section("path, as of " + timeText(report.checkTime()), pathTrees(report), style);
  std::string out = paragraph("outcome: " + outcomeText(report.outcome()), style);
  out += report.valid() ? path + findings : findings + path;
  out += section("sources", sources, style);
  out += paragraph(totalsText(report.totals()), style);
  if (const std::string leftOut = leftOutText(report, unshown); !leftOut.empty()) {
    out += paragraph(leftOut, style);
  }
  return out;
}

}  // namespace Velantrix::Tool
