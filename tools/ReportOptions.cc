#include "ReportOptions.h"

#include "StandardStreams.h"
#include "Terminal.h"

#include <algorithm>
#include <array>

namespace Velantrix::Tool {

using Crypto::PKX509::Outcome;

void addAnswerOptions(Subcommand& command, ReportOptions& options) {
  command.flag("--json", "prints JSON", options.json);
  command.flag("--quiet", "prints no result: the exit status tells", options.quiet);
  command.excludes("--quiet", "--json");
  command.flag("--tempfail", "exit status 75 for what may be well later", options.tempFail);
}

void addReportOptions(Subcommand& command, ReportOptions& options) {
  command.flag("--explain", "says why: path, findings and sources as a tree", options.explain);
  addAnswerOptions(command, options);
  command.excludes("--explain", "--json");
  command.excludes("--explain", "--quiet");
  command.option("--color", "WHEN", kColourHelp, options.colour);
}

int statusFor(Outcome outcome, int status, const ReportOptions& options) {
  return options.tempFail && outcome == Outcome::kTemporary ? kTempFail : status;
}

int worse(int left, int right) {
  // A permanent failure among temporary ones is not mended by trying again.
  static constexpr std::array kOrder = {int{kAllValid}, int{kTempFail}, int{kNotValid},
                                        int{kError}};
  const auto rank = [](int status) { return std::find(kOrder.begin(), kOrder.end(), status); };
  return rank(left) < rank(right) ? right : left;
}

void writeText(const Report& report, const ReportOptions& options) {
  if (options.quiet) return;
  writeLog(report.file, logWithoutLine(report));
  writeRetrieval(report.file, report.retrieval);
  writeOutput(textReport(report, outputStyle(options.colour), options.explain));
}

void writeJson(const std::vector<Report>& reports, const ReportOptions& options) {
  if (options.json) writeOutput(jsonReport(reports));
}

}  // namespace Velantrix::Tool
