#include "Printable.h"
#include "Report.h"
#include "StandardStreams.h"

namespace Velantrix::Tool {

namespace {

std::string verdict(const Report& report, bool colour) {
  std::string word = report.valid() ? "valid" : "invalid";
  if (!colour) return word;
  return (report.valid() ? "\x1b[32m" : "\x1b[31m") + word + "\x1b[0m";
}

}  // namespace

std::string textReport(const Report& report, bool colour) {
  std::string out = printable(report.file) + ": " + verdict(report, colour) + ", code " +
                    std::to_string(report.code) + " (" + report.text + ")";
  if (!report.valid() && report.pathKnown) out += ", depth " + std::to_string(report.depth);
  out += "\n  verifier: " + report.verifier + '\n';
  int depth = 0;
  for (const Report::Link& link : report.chain) {
    out += "  chain " + std::to_string(depth++) + ": subject " + printable(link.subject) + '\n';
    out += "           issuer  " + printable(link.issuer) + '\n';
    out += "           serial  " + printable(link.serial) + '\n';
  }
  for (const std::string& note : report.notes) out += "  note: " + printable(note) + '\n';
  return out;
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
