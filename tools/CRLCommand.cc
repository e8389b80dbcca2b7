#include "CRLCommand.h"

#include "CRLHelp.h"
#include "Facts.h"
#include "Input.h"
#include "JsonText.h"
#include "LogCollector.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Status.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>
#include <velantrix/File.h>
#include <velantrix/Uri.h>

#include <CLI/CLI.hpp>
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

int report(const Options& options, const std::string& text, LogCollector& log, Facts& all) {
  const Uri uri(text);
  const Found found = lookUp(text, uri);
  for (const Report::LogLine& line : log.take()) writeErrorLine(logLine(text, line));
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
    if (hasProblems(facts)) status = kError;
    if (options.json) {
      all.push_back(std::move(facts));
    } else {
      writeOutput(factsText(facts));
    }
  }
  return status;
}

int run(const Options& options) {
  for (const std::string& text : options.uris) {
    if (Uri(text).isNull()) throw ToolError("\"" + text + "\" is no URI");
  }
  LogCollector log;
  Facts all = Facts::array();
  int status = kAllValid;
  for (const std::string& text : options.uris) {
    status = std::max(status, report(options, text, log, all));
  }
  if (options.json) writeOutput(jsonText(all));
  return status;
}

}  // namespace

void addCRLCommand(CLI::App& app, Action& action) {
  CLI::App* const command =
      app.add_subcommand("crl", "Fetches CRLs by URI, as a verification does.");
  const auto options = std::make_shared<Options>();
  command->add_option("URI", options->uris, "where the CRL is, http or https")
      ->required()
      ->type_name("");
  command->add_flag("--json", options->json, "prints JSON");
  command->footer(crlHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
