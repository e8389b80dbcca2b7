// `pkx509 refresh`: fetches the CRLs of the cache before they run out.
#include "Input.h"
#include "JsonText.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Printable.h"
#include "Progress.h"
#include "Report.h"
#include "ReportJson.h"
#include "ReportWords.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <pkx509/CRLRefresh.h>
#include <velantrix/Uri.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

using RefreshResult = CRLRefresh::Result;

struct RefreshOptions {
  RefreshSettings settings;
  std::optional<std::string> uriList;
  std::optional<std::string> directory;
  std::optional<std::string> certificates;
  bool json = false;
  bool quiet = false;
};

// For programs, and for people.
struct Word {
  const char* json;
  const char* text;
};
constexpr std::array<Word, CRLRefresh::kResults> kWords{
    {{"kept", "kept"},
     {"updated", "updated"},
     {"not-modified", "not modified"},
     {"failed-old-good", "failed, the old one is good"},
     {"failed", "failed"}}};

const Word& resultWord(RefreshResult result) { return kWords.at(static_cast<std::size_t>(result)); }

bool isFailure(RefreshResult result) {
  return result == RefreshResult::kFailed || result == RefreshResult::kFailedOldIsGood;
}

// A URI on each line; blank ones and those that begin with "#" are passed over.
std::vector<Uri> readURIList(const std::string& file) {
  std::vector<Uri> uris;
  std::size_t number = 0;
  for (const std::string& line : readLines(file)) {
    ++number;
    if (line.empty() || line.starts_with('#')) continue;
    const Uri uri(line);
    if (uri.scheme() != "http:" && uri.scheme() != "https:") {
      throw ToolError(file + ":" + std::to_string(number) + ": \"" + line +
                      "\" is no http or https URI");
    }
    uris.push_back(uri);
  }
  return uris;
}

void prepare(RefreshOptions& options) {
  if (options.uriList == "-" && options.certificates == "-") {
    requireOneStandardInput({"-", "-"});
  }
  if (options.directory) {
    requireHashDirectory("--ca-dir", *options.directory);
    options.settings.trustDirectory = *options.directory;
  }
  if (options.uriList) options.settings.uris = readURIList(*options.uriList);
  if (options.certificates) {
    options.settings.certificates = readCertificates(*options.certificates);
  }
}

std::string textOf(const CRLRefresh::Entry& entry) {
  std::string text = entry.uri.asString() + ": " + resultWord(entry.result).text;
  if (entry.nextUpdate) text += " until " + timeText(*entry.nextUpdate);
  if (!entry.reason.empty()) text += ": " + entry.reason;
  return printable(text);
}

Value valueOf(const CRLRefresh::Entry& entry) {
  return Value::Object{
      {"schemaVersion", kSchemaVersion},
      {"type", "refresh"},
      {"uri", entry.uri.asString()},
      {"result", resultWord(entry.result).json},
      {"reason", entry.reason.empty() ? Value() : Value(entry.reason)},
      {"nextUpdate", entry.nextUpdate ? Value(timeText(*entry.nextUpdate)) : Value()},
      {"due", timeText(entry.due)}};
}

std::string summaryOf(const CRLRefresh& refresh) {
  const std::size_t total = refresh.entries().size();
  std::string text = std::to_string(total) + (total == 1 ? " URI" : " URIs");
  const char* separator = ": ";
  for (std::size_t i = 0; i < CRLRefresh::kResults; ++i) {
    const std::size_t count = refresh.count(static_cast<RefreshResult>(i));
    if (count == 0) continue;
    text += separator + std::to_string(count) + ' ' + kWords.at(i).text;
    separator = "; ";
  }
  return text + "\n";
}

// One line for each URI as soon as it is done, and a counter below them for who waits.
class Lines {
 public:
  explicit Lines(const RefreshOptions& options) : options_(options) {}

  void hear(const CRLRefresh::Progress& progress) {
    if (progress.last == nullptr) counter_.emplace(progress.total, "URI");
    step_.reset();
    if (progress.last != nullptr) write(*progress.last);
    if (progress.done < progress.total) step_.emplace(*counter_);
  }

 private:
  void write(const CRLRefresh::Entry& entry) const {
    if (isFailure(entry.result)) {
      writeErrorLine("pkx509: " + textOf(entry));
    } else if (!options_.json && !options_.quiet) {
      writeOutput(textOf(entry) + "\n");
    }
  }

  const RefreshOptions& options_;
  std::optional<Progress> counter_;
  std::optional<Progress::Step> step_;
};

int statusOf(const CRLRefresh& refresh) {
  if (refresh.count(RefreshResult::kFailed) > 0 || !refresh.problem().empty()) return kError;
  return refresh.count(RefreshResult::kFailedOldIsGood) > 0 ? kNotValid : kAllValid;
}

void writeResult(const CRLRefresh& done, const RefreshOptions& options) {
  if (!done.problem().empty()) writeErrorLine("pkx509: " + done.problem());
  if (options.json) {
    Value::Array all;
    for (const CRLRefresh::Entry& entry : done.entries()) all.push_back(valueOf(entry));
    writeOutput(jsonText(all));
  } else if (!options.quiet) {
    writeOutput(summaryOf(done));
  }
}

int runRefresh(RefreshOptions& options) {
  LogCollector log;
  prepare(options);
  Lines lines(options);
  const CRLRefresh done = refresh(
      options.settings, {}, [&](const CRLRefresh::Progress& progress) { lines.hear(progress); });
  if (!options.quiet) writeLog("refresh", log.take());
  writeResult(done, options);
  return statusOf(done);
}

constexpr char kRefreshHelp[] = R"(
Fetches the CRLs that verifications will need next: those that are in the cache, /var/spool/crypto/crl_cache,
the delta CRLs that these name, those of each URI in the list (one on a line; "-" is standard input), and
those that the certificates in the trust directory and in FILE name as their CRL distribution points. A host
is asked when half of a CRL's life has gone by, or the SHARE of it, a tenth earlier or later as the URI
decides; 30 to 36 hours before the end at the latest where a CRL lives longer than a day; and always for a
CRL that is missing or has run out. A host that has failed just now is not asked again before 30 seconds have
gone by, doubling to 15 minutes.

A CRL is stored only after its signature was verified and the path of its issuer to a trust anchor in the
directory, /opsadmin/etc/cert/server/ca without --ca-dir. Certificates in FILE may be such issuers and
intermediate ones; nothing about them is trusted. Whatever a host answers, the last good CRL stays until it
has run out.

Hosts at public and private addresses are asked; --allow-address adds a kind: loopback, link-local,
multicast, unspecified, or all.

What is not done within --deadline has failed, and what the cache has stays.

Output:
  A line for each URI as soon as it is done, and a summary. What has failed is told on standard error, as
  are log lines, and on a terminal there is a counter as long as it takes.
  With --json an array of an object for each URI, with uri, result ("kept", "updated", "not-modified",
  "failed-old-good" or "failed"), reason, nextUpdate (until when what the cache has is good) and due (when
  it is worth looking again). docs/pkx509.schema.json describes it.
  With --quiet there is no output but errors.

Exit status:
  0  There is a good CRL for each URI, and nothing has failed.
  1  Something has failed, and for each URI there is a good CRL for now.
  2  For a URI there is no good CRL, or the deadline was over before it was looked for; or wrong usage, a file, the cache or a directory that cannot be read.

Examples:
  pkx509 refresh
  pkx509 refresh --uri-list /etc/pkx509/uris --certificates intermediates.pem
  pkx509 refresh --all --parallel 8 --json
)";

}  // namespace

void addRefreshCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<RefreshOptions>();
  RefreshSettings& settings = options->settings;
  Subcommand command =
      commandLine.add("refresh", "Fetches CRLs before they run out, into the cache.");
  command.option("--uri-list", "FILE", "URIs of further CRLs, one on a line", options->uriList);
  command.option("--ca-dir", "DIR", "hash directory of trusted certificates", options->directory);
  command.option("--certificates", "FILE", "certificates that name CRLs, or issue them",
                 options->certificates);
  command.flag("--all", "asks every host, whether or not it is time", settings.all);
  command.numberOption("--parallel", "N", "asks so many hosts at once, 4 by default",
                       settings.parallel, 1, RefreshSettings::kMostParallel);
  command.option("--share", "SHARE",
                 "of a CRL's life, after which its host is asked; 0.5 by default",
                 [&settings](const std::string& text) { settings.share = parseShare(text); });
  command.option("--deadline", "DURATION",
                 "gives all of them no more time than that, 500ms, 10s or 2m",
                 [&settings](const std::string& text) { settings.deadline = parseDuration(text); });
  command.option(
      "--proxy", "URI", "HTTP proxy that all requests go through, http://HOST:PORT",
      [&settings](const std::string& text) { settings.retrieval.proxy = parseProxy(text); });
  command.repeatableOption(
      "--allow-address", "KIND", "hosts at such addresses may be asked, see below; repeatable",
      [&settings](const std::string& kind) { allowAddresses(kind, settings.addresses); });
  command.flag("--json", "prints JSON", options->json);
  command.flag("--quiet", "prints nothing but errors", options->quiet);
  command.excludes("--quiet", "--json");
  command.footer(kRefreshHelp);
  command.action([options] { return runRefresh(*options); });
}

}  // namespace Velantrix::Tool
