// `pkx509 crl`: fetches CRLs by URI, through the cache that verifications use.
#include "CRLRefreshing.h"
#include "Facts.h"
#include "FactsOutput.h"
#include "Input.h"
#include "LogCollector.h"
#include "Printable.h"
#include "Report.h"
#include "ReportJson.h"
#include "ReportOptions.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <pkx509/CRLCacheView.h>
#include <pkx509/CRLRetrieval.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/Rule.h>
#include <pkx509/VerificationReport.h>
#include <velantrix/Uri.h>

#include <exception>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

struct CRLOptions {
  std::vector<std::string> uris;
  CRLRefreshOptions refresh;
  ReportOptions output;
};

using Source = VerificationReport::Source;

// A look-up passes over it without a word.
void tellOfBrokenCache(const std::string& text, const Uri& uri) {
  try {
    std::list<RefCertificateRevocationList> none;
    HashDirLookupMethod(kCRLCacheDirectory).getBySubject(uri, none);
  } catch (const std::exception& error) {
    writeErrorLine("pkx509: " + text + ": the cache cannot be used: " + reasonOf(error));
  }
}

CRLRetrieval::Answer lookUp(const std::string& text, const Uri& uri) {
  tellOfBrokenCache(text, uri);
  // Who asks by hand has a reason to think that the host is well again.
  CRLCacheView().forget(uri);
  return CRLRetrieval().find(uri);
}

// Of the cache what came last; it is read before it is written.
std::string whyNotStored(const CRLRetrieval::Answer& answer) {
  std::string reason = answer.objection;
  for (const Source& source : answer.report.sources()) {
    const bool failed =
        source.kind() == Source::Kind::kCache && source.result() == Source::Result::kFailed;
    if (failed && answer.objection.empty()) reason = source.reason();
  }
  return reason.empty() ? reason : ": " + reason;
}

void finish(Facts& facts, const VerificationReport& report) {
  Facts::Object members = *facts.object();
  members.emplace_back("schemaVersion", kSchemaVersion);
  addAnswer(members, report);
  facts = members;
}

int reportNone(const std::string& text, const VerificationReport& report, const CRLOptions& options,
               FactsOutput& output) {
  writeErrorLine("pkx509: " + text + ": there is no CRL: " + report.line());
  Facts none =
      Facts::Object{{"file", text}, {"type", "none"}};  // for programs: each URI has a place
  finish(none, report);
  output.addForPrograms(std::move(none));
  return statusFor(report.outcome(), kNotFound, options.output);
}

int report(const std::string& text, const CRLOptions& options, LogCollector& log,
           FactsOutput& output) {
  const CRLRetrieval::Answer found = lookUp(text, Uri(text));
  const std::vector<Report::LogLine> lines = log.take();
  if (!options.output.quiet) writeLog(text, lines);
  if (found.crls.empty()) return reportNone(text, found.report, options, output);
  if (found.fetched && !found.held) {
    writeErrorLine("pkx509: " + text + ": not stored in " + kCRLCacheDirectory +
                   whyNotStored(found));
  }
  int status = kAllValid;
  for (const RefCertificateRevocationList& crl : found.crls) {
    Facts facts = factsOf(text, crl);
    facts["source"] = found.fetched ? "network" : "cache";
    if (options.output.json) finish(facts, found.report);
    status = worse(status, output.add(std::move(facts)));
  }
  return status;
}

// For programs: with the keys of what was looked up, and what changed.
void finishRefreshed(Facts& facts, const RefreshedCRL& refreshed) {
  const bool none = refreshed.after.empty();
  Facts::Object members = *facts.object();
  members.emplace_back("refresh", changeFacts(refreshed));
  members.emplace_back("schemaVersion", kSchemaVersion);
  members.emplace_back("outcome", none ? "temporary" : "valid");
  if (none) members.emplace_back("line", changeText(refreshed));
  members.emplace_back("findings", Facts::Array());
  facts = members;
}

int reportRefreshed(const std::string& text, const RefreshSettings& settings,
                    const CRLOptions& options, LogCollector& log, FactsOutput& output) {
  const RefreshedCRL refreshed = refreshedCRL(settings, Uri(text));
  const std::vector<Report::LogLine> lines = log.take();
  if (!options.output.quiet) writeLog(text, lines);
  const std::string change = text + ": " + changeText(refreshed);
  const bool updated = refreshed.result.result == CRLRefresh::Result::kUpdated;
  if (refreshed.failed()) {
    writeErrorLine("pkx509: " + change);
  } else if (!options.output.quiet && !options.output.json) {
    writeOutput(printable(change) + '\n');
  }
  int status =
      refreshed.failed() ? statusFor(Outcome::kTemporary, kNotFound, options.output) : kAllValid;
  Facts facts = refreshed.after.empty() ? Facts(Facts::Object{{"file", text}, {"type", "none"}})
                                        : factsOf(text, refreshed.after);
  if (!refreshed.after.empty()) facts["source"] = updated ? "network" : "cache";
  if (options.output.json) finishRefreshed(facts, refreshed);
  if (refreshed.after.empty()) {
    output.addForPrograms(std::move(facts));
  } else {
    status = worse(status, output.add(std::move(facts)));
  }
  return status;
}

int refreshAll(const CRLOptions& options, LogCollector& log, FactsOutput& output) {
  const RefreshSettings settings = crlRefreshSettings(options.refresh);
  int status = kAllValid;
  for (const std::string& text : options.uris) {
    status = worse(status, reportRefreshed(text, settings, options, log, output));
  }
  return status;
}

int lookUpAll(const CRLOptions& options, LogCollector& log, FactsOutput& output) {
  int status = kAllValid;
  for (const std::string& text : options.uris) {
    status = worse(status, report(text, options, log, output));
  }
  return status;
}

int runCRL(const CRLOptions& options) {
  for (const std::string& text : options.uris) {
    if (Uri(text).isNull()) throw ToolError("\"" + text + "\" is no URI");
  }
  LogCollector log;
  FactsOutput output(options.output.json, options.output.quiet);
  const int status =
      options.refresh.wanted ? refreshAll(options, log, output) : lookUpAll(options, log, output);
  output.finish();
  return status;
}

constexpr char kCRLHelp[] = R"(
A CRL that is in the cache, /var/spool/crypto/crl_cache, and has not run out is taken from there.
Otherwise it is fetched as a verification does it, whatever failed before: by HTTP/1.1, with the query,
through up to 5 redirects, at most 15 s and 64 MiB; an https server is shown the client certificate in
/opsadmin/etc/cert/server/apps, where there is one, and not verified. Addresses of all kinds are contacted.

Nothing is verified of what is shown: whoever answers for the host decides that. It is stored in the cache
when it is signed by a certificate that has a valid path to /opsadmin/etc/cert/server/ca, from there or
remembered from the last time.

With --refresh each URI's host is asked whatever the cache has. What it sends takes the place of an older one in the cache
when it is signed by a certificate that has a valid path to the trusted ones; it may be among those, in
FILE, or remembered from the last time. What could not be replaced stays. Addresses that are not public
or private are contacted only where --allow-address says so: loopback, link-local, multicast,
unspecified or all.

Output:
  The facts of each CRL, as "pkx509 show" prints them, with the URI in the place of the file, and where
  it came from. Log lines go to standard error, as "URI: <priority> text", and so does a line that says
  that the cache cannot be read, or why the CRL was not stored, and where there is no CRL one with rule, URI and what to do.
  With --json an array of an object for each CRL, with the keys of "pkx509 show", source ("cache" or
  "network"), schemaVersion (1), outcome ("valid"), findings (what is wrong with the cache) and sources. A
  URI without a CRL has an object with file, type ("none"), schemaVersion, outcome, line, findings (the
  decisive one first) and sources, both as "pkx509 verify --json" has them. docs/pkx509.schema.json
  describes them.
  With --refresh a line before the facts says what changed, and one on standard error why nothing did. The
  facts are those of what the cache has then; their JSON has the key refresh, with result ("updated",
  "not-modified" or "failed"), reason and before (crlNumber, thisUpdate, nextUpdate and entries of what the
  cache had, or null), and no sources.
  With --quiet there is no output but errors.

Exit status:
  0   There was a CRL for each URI.
  1   For at least one there was none, or it was not refreshed. A line on standard error says so.
  2   Wrong usage, or a CRL of which a part is broken.
  75  With --tempfail: as 1, and all of these may be there later. Of several
      URIs 2 counts before 1, and 1 before 75.

Examples:
  pkx509 crl http://crl.example.com/ca.crl
  pkx509 crl --refresh --certificates intermediates.pem http://crl.example.com/ca.crl
  pkx509 show --json person.pem |
    jq -r '.[].crlDistributionPoints[].fullName[] | select(startswith("URI:")) | .[4:]' |
    xargs pkx509 crl
)";

}  // namespace

void addCRLCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<CRLOptions>();
  Subcommand command = commandLine.add("crl", "Fetches CRLs by URI, as a verification does.");
  command.argument("URI", "where the CRL is, http or https", options->uris);
  addCRLRefreshOptions(command, options->refresh);
  addAnswerOptions(command, options->output);
  command.footer(kCRLHelp);
  command.action([options] { return runCRL(*options); });
}

}  // namespace Velantrix::Tool
