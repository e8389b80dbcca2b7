#include "ExplainText.h"
#include "Printable.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Tree.h"

#include <algorithm>

namespace Velantrix::Tool {

namespace {

std::string verdict(const Report& report, const TextStyle& style) {
  return report.valid() ? painted("valid", Tree::Paint::kGood, style)
                        : painted("invalid", Tree::Paint::kBad, style);
}

std::string verdictLine(const Report& report, const TextStyle& style) {
  std::string line = printable(report.file) + ": " + verdict(report, style) + ", code " +
                     std::to_string(report.code) + " (" + report.text + ")";
  if (!report.valid() && report.pathKnown) line += ", depth " + std::to_string(report.depth);
  return line + '\n';
}

std::string chainText(const Report& report) {
  std::string out;
  int depth = 0;
  for (const Report::Link& link : report.chain) {
    out += "  chain " + std::to_string(depth++) + ": subject " + printable(link.subject) + '\n';
    out += "           issuer  " + printable(link.issuer) + '\n';
    out += "           serial  " + printable(link.serial) + '\n';
  }
  return out;
}

std::string lineText(const Report& report, const TextStyle& style, bool explain) {
  if (report.valid()) return {};
  const std::string line = report.found.line();
  // Where there is no tree the line stays one, for who looks for words in it.
  return explain ? paragraph(line, style) : "  " + printable(line) + '\n';
}

}  // namespace

std::string textReport(const Report& report, const TextStyle& style, bool explain) {
  std::string out = verdictLine(report, style) + lineText(report, style, explain);
  out += "  verifier: " + report.verifier + '\n';
  out += explain ? explainText(report.found, style) : chainText(report);
  for (const std::string& note : report.notes) out += "  note: " + printable(note) + '\n';
  return out;
}

std::vector<Report::LogLine> logWithoutLine(const Report& report) {
  constexpr int kPriority = 5;  // of the reports' lines
  std::vector<Report::LogLine> lines = report.log;
  const std::string told = report.found.line();
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [&](const Report::LogLine& line) {
                               return line.priority == kPriority && line.text == told;
                             }),
              lines.end());
  return lines;
}

void writeLog(const std::string& subject, const std::vector<Report::LogLine>& lines) {
  for (const Report::LogLine& line : lines) {
    writeErrorLine(subject + ": <" + std::to_string(line.priority) + "> " + line.text);
  }
}

void writeRetrieval(const std::string& subject, const std::vector<Report::Retrieval>& failures) {
  for (const Report::Retrieval& failure : failures) {
    writeErrorLine(subject + ": " + failure.what + ": " + failure.uri + ": " + failure.reason);
  }
}

}  // namespace Velantrix::Tool
