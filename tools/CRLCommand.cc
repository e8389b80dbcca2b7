// `pkx509 crl`: fetches CRLs by URI, through the cache that verifications use.
#include "Facts.h"
#include "FactsOutput.h"
#include "Input.h"
#include "LogCollector.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>
#include <velantrix/File.h>
#include <velantrix/Uri.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <list>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

constexpr int kNotFound = kNotValid;  // as grep has it

struct Options {
  std::vector<std::string> uris;
  bool json = false;
};

struct Found {
  std::list<RefCertificateRevocationList> crls;
  bool cached = false;
  bool stored = false;  // by this fetch
};

// The file in the cache, whatever is in it; 0 when there is none. A file that is replaced gets
// another number, because the new one is there before the old one goes.
ino_t cacheFile(const Uri& uri) {
  const std::string path =
      File::Path(kCRLCacheDirectory, HashDirLookupMethod::fileName(uri)).asString();
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// The look-up itself does not say where it found something, so the cache is asked first.
Found lookUp(const std::string& text, const Uri& uri) {
  Found found;
  try {
    HashDirLookupMethod(kCRLCacheDirectory).getBySubject(uri, found.crls);
  } catch (const std::exception& error) {
    // A verification passes over it without a word.
    writeErrorLine("pkx509: " + text + ": the cache cannot be used: " + reasonOf(error));
  }
  found.cached = !found.crls.empty();
  if (!found.cached) {
    const ino_t before = cacheFile(uri);
    URILookup().find(uri, found.crls);
    const ino_t after = cacheFile(uri);
    found.stored = after != 0 && after != before;
  }
  return found;
}

// Why there is none. The look-up does not tell; what can be seen from here is said.
std::string reasonForNone(const Uri& uri) {
  if (uri.scheme() == "https:") {
    for (const char* file : {kClientCertificateFile, kClientKeyFile}) {
      if (::access(file, R_OK) != 0) {
        return std::string(file) + ": " + std::generic_category().message(errno);
      }
    }
  }
  return "the host was not reached, or it did not answer with one";
}

int report(const std::string& text, LogCollector& log, FactsOutput& output) {
  const Uri uri(text);
  const Found found = lookUp(text, uri);
  writeLog(text, log.take());
  if (found.crls.empty()) {
    writeErrorLine("pkx509: " + text + ": there is no CRL: " + reasonForNone(uri));
    return kNotFound;
  }
  if (!found.cached && !found.stored) {
    writeErrorLine("pkx509: " + text + ": not stored in " + kCRLCacheDirectory);
  }
  int status = kAllValid;
  for (const RefCertificateRevocationList& crl : found.crls) {
    Facts facts = factsOf(text, crl);
    facts["source"] = found.cached ? "cache" : "network";
    status = std::max(status, output.add(std::move(facts)));
  }
  return status;
}

int run(const Options& options) {
  for (const std::string& text : options.uris) {
    if (Uri(text).isNull()) throw ToolError("\"" + text + "\" is no URI");
  }
  LogCollector log;
  FactsOutput output(options.json);
  int status = kAllValid;
  for (const std::string& text : options.uris) {
    status = std::max(status, report(text, log, output));
  }
  output.finish();
  return status;
}

constexpr char kHelp[] = R"(
A CRL that is in the cache, /var/spool/crypto/crl_cache, and has not run out is taken from there.
Otherwise it is fetched, and stored in the cache, exactly as a verification does it: HTTP/1.0, port 80
unless the URI names another, query and fragment not sent, at most 15 s and 64 MiB, no redirects; for
https the client certificate in /opsadmin/etc/cert/server/apps is shown and the server not verified.

Nothing is verified: whoever answers for the host decides what is shown.

Output:
  The facts of each CRL, as "pkx509 show" prints them, with the URI in the place of the file, and where
  it came from. Log lines go to standard error, as "URI: <priority> text", and so does a line that says
  that the cache cannot be read or written. With --json an array of an object for each CRL, with the keys
  of "pkx509 show" and source ("cache" or "network").

Exit status:
  0  There was a CRL for each URI.
  1  For at least one there was none. A line on standard error says so.
  2  Wrong usage, or a CRL of which a part is broken.

Examples:
  pkx509 crl http://crl.example.com/ca.crl
  pkx509 show --json person.pem |
    jq -r '.[].crlDistributionPoints[].fullName[] | select(startswith("URI:")) | .[4:]' |
    xargs pkx509 crl
)";

}  // namespace

void addCRLCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<Options>();
  Subcommand command = commandLine.add("crl", "Fetches CRLs by URI, as a verification does.");
  command.argument("URI", "where the CRL is, http or https", options->uris);
  command.flag("--json", "prints JSON", options->json);
  command.footer(kHelp);
  command.action([options] { return run(*options); });
}

}  // namespace Velantrix::Tool
