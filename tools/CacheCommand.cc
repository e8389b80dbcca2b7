// `pkx509 cache`: what the cache of fetched CRLs holds, whether it is good, and taking things out of it.
#include "CacheCheck.h"
#include "CacheFile.h"
#include "CacheMetrics.h"
#include "CacheText.h"
#include "Input.h"
#include "JsonText.h"
#include "Printable.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"
#include "Terminal.h"

#include <pkx509/CRLCacheView.h>
#include <pkx509/FixedPaths.h>
#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>
#include <velantrix/Uri.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

// ------------------------------------------------------------------------------------------- list

struct CacheListOptions {
  bool json = false;
  std::string colour = "auto";
};

int listAsJson() {
  const Time now = Time::now();
  Value::Array all;
  visitCache(
      [&](const CRLCacheView::Entry& entry) { all.push_back(jsonOf(CacheFile(entry, now), now)); },
      [&](const CRLCacheView::Failing& failing) { all.push_back(jsonOf(failing)); });
  writeOutput(jsonText(all));
  return kAllValid;
}

int runCacheList(const CacheListOptions& options) {
  const TextStyle style = outputStyle(options.colour);
  if (options.json) return listAsJson();
  const Time now = Time::now();
  CacheTable table(style, now);
  visitCache(
      [&](const CRLCacheView::Entry& entry) { writeOutput(table.add(CacheFile(entry, now))); },
      [&](const CRLCacheView::Failing& failing) { writeOutput(table.add(failing)); });
  writeOutput(table.sum());
  return kAllValid;
}

constexpr char kCacheListHelp[] = R"(
Output:
  For each file of the cache, /var/spool/crypto/crl_cache, in the order of their names: how long the CRL
  is good for, its number, how many certificates it lists, how large the file is, and when its host last
  gave or confirmed it; below that the URI, the issuer, thisUpdate and nextUpdate, and what was wrong at
  the last fetch and how long nobody will ask again. After the files come URIs, hosts and OCSP responders
  that failed and have no file there. The last line has the sums. Texts are cut after four lines; --json
  has them whole.
  With --json an array of an object for each, with the keys schemaVersion (1), type ("cache-file"), state
  ("fresh", "expired" or "unreadable"), file, uri, issuer, crlNumber, thisUpdate, nextUpdate,
  secondsLeft, entries, size, stored, fetched, problem and failure, of which those are null that there
  are not; failure has at, until, inARow, reason, httpStatus, errno and ofHost. docs/pkx509.schema.json
  describes them.
  What failed without a file has type ("failing"), of ("uri", "host" or "responder"), uri, sha256 and
  failure.
  URIs of files are shown as they are, queries and passwords included; those of others without.

Exit status:
  0  Told, whatever there was.
  2  Wrong usage, or the cache cannot be read. A line on standard error says so.

Examples:
  pkx509 cache list
  pkx509 cache list --json | jq -r '.[] | select(.state != "fresh") | .uri'
)";

// ------------------------------------------------------------------------------------------ flush

struct CacheFlushOptions {
  std::vector<std::string> uris;
  bool all = false;
};

std::string flushedText(const CRLCacheView::Flushed& flushed) {
  std::string text =
      "removed " + std::to_string(flushed.files) + (flushed.files == 1 ? " file" : " files");
  if (flushed.failures == 0) return text;
  return text + ", forgot " + std::to_string(flushed.failures) +
         (flushed.failures == 1 ? " failure" : " failures");
}

int flushOne(CRLCacheView& cache, const std::string& text) {
  const CRLCacheView::Flushed flushed = cache.flush(Uri(text));
  if (flushed.files == 0 && flushed.failures == 0) {
    writeErrorLine("pkx509: " + text + ": there is nothing in the cache");
    return kNotFound;
  }
  writeOutput(printable(text + ": " + flushedText(flushed)) + '\n');
  return kAllValid;
}

int runCacheFlush(const CacheFlushOptions& options) {
  if (options.all != options.uris.empty()) throw ToolError("give either a URI or --all");
  for (const std::string& text : options.uris) {
    if (Uri(text).isNull()) throw ToolError("\"" + text + "\" is no URI");
  }
  int status = kAllValid;
  try {
    CRLCacheView cache;
    if (options.all) writeOutput(flushedText(cache.flushAll()) + '\n');
    for (const std::string& text : options.uris) {
      status = std::max(status, flushOne(cache, text));
    }
  } catch (const Exception& error) {
    throw ToolError(reasonOf(error));
  }
  return status;
}

constexpr char kCacheFlushHelp[] = R"(
What is flushed is fetched by whoever wants it next: its host's failures are forgotten as well. What
others keep in the directory of the cache stays.

Output:
  A line for each URI, or for --all, that says how much went.

Exit status:
  0  It is gone.
  1  For at least one URI there was nothing. A line on standard error says so.
  2  Wrong usage, or something cannot be removed. A line on standard error says so.

Examples:
  pkx509 cache flush http://crl.example.com/ca.crl
  pkx509 cache flush --all
)";

// ---------------------------------------------------------------------------------------- metrics

int runCacheMetrics(const std::string& output) {
  CacheMetrics collected(Time::now());
  visitCache(
      [&](const CRLCacheView::Entry& entry) { collected.add(CacheFile(entry, Time::now())); },
      [&](const CRLCacheView::Failing& failing) { collected.add(failing); });
  const std::string text = collected.text();
  if (output.empty()) {
    writeOutput(text);
    return kAllValid;
  }
  try {
    FileMediaOut file(output);
    file.write(text.data(), text.size());
    file.flush();
  } catch (const Exception& error) {
    throw ToolError(reasonOf(error));
  }
  return kAllValid;
}

constexpr char kCacheMetricsHelp[] = R"(
Output:
  The text format of Prometheus, for the textfile collector of its node exporter. For each CRL in the
  cache pkx509_crl_next_update_seconds (until it runs out, negative afterwards), pkx509_crl_age_seconds
  (since thisUpdate), pkx509_crl_fetch_age_seconds (since the host gave or confirmed it),
  pkx509_crl_size_bytes and pkx509_crl_entries; for each URI pkx509_crl_failures (in a row), also for one
  that has no file, for a host, and for an OCSP responder, which has "ocsp:" before its URI; and in all
  pkx509_crl_cache_files, _bytes, _expired, _unreadable and _failing.
  The label uri is the URI without user, password, query and fragment. Where one of these was left out
  there is a label digest as well, 32 digits of the SHA-256 of the URI's normal form, so that URIs that
  differ there only stay apart. A file that no look-up of its URI would open has "file:" and its path.

Exit status:
  0  Written.
  2  Wrong usage, or the cache cannot be read, or FILE not be written; what FILE had stands. A line on
     standard error says so.

Examples:
  pkx509 cache metrics --output /var/lib/prometheus/node-exporter/pkx509.prom
)";

// ------------------------------------------------------------------------------------------ check

constexpr char kCacheCheckHelp[] = R"(
Every file has to hold a CRL that can be read, that has not run out, and that is signed by a certificate
which may sign CRLs and has a valid path to the trust directory. Issuers are looked for there, in FILE, and
among those that were remembered when the CRL was stored. Whether an issuer is itself revoked is not
asked.

Output:
  A line for each file with a fault: the file, its URI and the reason. Nothing where all is well.

Exit status:
  0  There is no fault.
  1  There is one at least.
  2  Wrong usage, or the cache, DIR or FILE cannot be read. A line on standard error says so.

Examples:
  pkx509 cache check
  pkx509 cache check --ca-dir /etc/ssl/certs --certificates intermediates.pem
)";

void addList(Subcommand& cache) {
  const auto options = std::make_shared<CacheListOptions>();
  Subcommand command = cache.add("list", "Lists what the cache holds.");
  command.flag("--json", "prints JSON", options->json);
  command.option("--color", "WHEN",
                 "colours what is good and what is not: auto (on a terminal), always or never",
                 options->colour);
  command.footer(kCacheListHelp);
  command.action([options] { return runCacheList(*options); });
}

void addFlush(Subcommand& cache) {
  const auto options = std::make_shared<CacheFlushOptions>();
  Subcommand command = cache.add("flush", "Takes CRLs out of the cache.");
  command.optionalArgument("URI", "whose CRL goes", options->uris);
  command.flag("--all", "all that the cache holds", options->all);
  command.footer(kCacheFlushHelp);
  command.action([options] { return runCacheFlush(*options); });
}

void addCheck(Subcommand& cache) {
  const auto options = std::make_shared<CacheCheckOptions>();
  Subcommand command = cache.add("check", "Checks every file: readable, signed, fresh.");
  options->directory = kCADirectory;
  command.option("--ca-dir", "DIR", std::string("trusted certificates, default ") + kCADirectory,
                 options->directory);
  command.repeatableOption("--certificates", "FILE",
                           "certificates that may have issued CRLs, repeatable",
                           options->certificates);
  command.footer(kCacheCheckHelp);
  command.action([options] { return checkCache(*options); });
}

void addMetrics(Subcommand& cache) {
  const auto output = std::make_shared<std::string>();
  Subcommand command = cache.add("metrics", "Measures for Prometheus.");
  command.option("--output", "FILE",
                 "where to write to, replacing what is there; default: standard output", *output);
  command.footer(kCacheMetricsHelp);
  command.action([output] { return runCacheMetrics(*output); });
}

}  // namespace

void addCacheCommand(CommandLine& commandLine) {
  Subcommand cache = commandLine.add("cache", "Shows and mends the cache of fetched CRLs.");
  addList(cache);
  addFlush(cache);
  addCheck(cache);
  addMetrics(cache);
  cache.footer("\n\"pkx509 cache list --help\" tells more about list, and so on.");
}

}  // namespace Velantrix::Tool
