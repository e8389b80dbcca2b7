#include "CacheCheck.h"

#include "CacheFile.h"
#include "Input.h"
#include "LogCollector.h"
#include "Printable.h"
#include "ReportWords.h"
#include "StandardStreams.h"
#include "Status.h"

#include <pkx509/CRLTrust.h>
#include <velantrix/Uri.h>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

// What is wrong with the dates; empty when nothing is.
std::string datesFault(const CacheFile& file, const Time& now) {
  if (file.state == CacheFile::State::kExpired) {
    return file.nextUpdate
               ? "it ran out at " + timeText(*file.nextUpdate)
               : "it says not when it runs out, and was stored at " + timeText(file.stored);
  }
  if (file.thisUpdate && now < *file.thisUpdate) {
    return "it is not valid before " + timeText(*file.thisUpdate);
  }
  return {};
}

// Empty when the file has none.
std::string faultOf(const CRLCacheView::Entry& entry, const CRLTrust& trust) {
  const Time now = Time::now();
  const CacheFile file(entry, now);
  if (!file.hasCRL()) return file.problem;
  const std::string signature = trust.objection(Uri(file.uri), entry.crl());
  const std::string dates = datesFault(file, now);
  return signature.empty() || dates.empty() ? signature + dates : signature + "; " + dates;
}

}  // namespace

int checkCache(const CacheCheckOptions& options) {
  requireHashDirectory("--ca-dir", options.directory);
  const CRLTrust trust(options.directory, readCertificates(options.certificates));
  const LogCollector log;  // says of each path what the line says
  int status = kAllValid;
  visitCache([&](const CRLCacheView::Entry& entry) {
    const std::string fault = faultOf(entry, trust);
    if (fault.empty()) return;
    status = kNotValid;
    const std::string uri = entry.uri().empty() ? "" : entry.uri() + ": ";
    writeOutput(printable(entry.file() + ": " + uri + fault) + '\n');
  });
  return status;
}

}  // namespace Velantrix::Tool
