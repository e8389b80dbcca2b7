// What subcommands with a verdict have in common: options about the output, and the exit status.
#pragma once

#include "CommandLine.h"
#include "Report.h"
#include "Status.h"

#include <pkx509/Rule.h>

#include <string>
#include <vector>

namespace Velantrix::Tool {

struct ReportOptions {
  bool json = false;
  bool quiet = false;
  bool tempFail = false;
  bool explain = false;
  std::string colour = "auto";
};

/// Declares --json, --quiet and --tempfail.
void addAnswerOptions(Subcommand& command, ReportOptions& options);
/// Declares --explain, --json, --quiet, --tempfail and --color.
void addReportOptions(Subcommand& command, ReportOptions& options);

/// @p status, which stands for what is not valid, or `kTempFail` where that was asked for and fits.
int statusFor(Crypto::PKX509::Outcome outcome, int status, const ReportOptions& options);
/// The one that counts of several.
int worse(int left, int right);

/// Writes a report as text: log lines and what could not be fetched to standard error, the rest to
/// standard output; with --quiet nothing.
void writeText(const Report& report, const ReportOptions& options);
/// Writes reports as JSON, unless --json was not given.
void writeJson(const std::vector<Report>& reports, const ReportOptions& options);

}  // namespace Velantrix::Tool
