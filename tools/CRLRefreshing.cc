#include "CRLRefreshing.h"

#include "FactValues.h"
#include "Input.h"
#include "OptionValues.h"
#include "ReportWords.h"

#include <pkx509/CRLCacheView.h>
#include <pkx509/FixedPaths.h>
#include <velantrix/Exception.h>

#include <string_view>
#include <utility>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

using RefreshResult = CRLRefresh::Result;

std::string_view wordOfResult(RefreshResult result) noexcept {
  switch (result) {
    case RefreshResult::kUpdated:
      return "updated";
    case RefreshResult::kKept:
    case RefreshResult::kNotModified:
      return "not-modified";
    case RefreshResult::kFailedOldIsGood:
    case RefreshResult::kFailed:
      break;
  }
  return "failed";
}

RefCertificateRevocationList inCache(const Uri& uri) {
  const auto entry = CRLCacheView().find(uri);
  return entry ? entry->crl() : RefCertificateRevocationList();
}

Facts summary(const RefCertificateRevocationList& crl) {
  if (crl.empty()) return {};
  return Facts::Object{{"crlNumber", numberFact(crl->crlNumber())},
                       {"thisUpdate", timeFact(crl->lastUpdate())},
                       {"nextUpdate", timeFact(crl->nextUpdate())},
                       {"entries", crl->entryCount()}};
}

std::string textOf(const Facts& fact) {
  if (const std::int64_t* const number = fact.number()) return std::to_string(*number);
  return fact.isNull() ? "none" : *fact.text();
}

// "number 01 -> 02, entries 5", a value alone where it is what it was or nothing was there.
std::string comparison(const Facts& before, const Facts& after) {
  static constexpr std::pair<std::string_view, std::string_view> kRows[] = {
      {"crlNumber", "number"},
      {"thisUpdate", "this update"},
      {"nextUpdate", "next update"},
      {"entries", "entries"}};
  std::string text;
  for (const auto& [key, name] : kRows) {
    const std::string now = textOf(after.at(key));
    const std::string then = before.isNull() ? now : textOf(before.at(key));
    text.append(text.empty() ? "" : ", ").append(name).append(" ");
    text += then == now ? now : then + " -> " + now;
  }
  return text;
}

}  // namespace

void addCRLRefreshOptions(Subcommand& command, CRLRefreshOptions& options) {
  command.flag("--refresh", "asks the host whatever the cache has, and stores what is verified",
               options.wanted);
  command.option("--proxy", "URI", "HTTP proxy, http://host:port", options.proxy);
  command.option("--ca-dir", "DIR", std::string("trusted certificates, default ") + kCADirectory,
                 options.directory);
  command.repeatableOption("--certificates", "FILE",
                           "certificates that may have issued the CRL, repeatable",
                           options.certificates);
  command.repeatableOption(
      "--allow-address", "KIND",
      "contacts such addresses too: loopback, link-local, multicast, unspecified or all, "
      "repeatable",
      [&options](const std::string& kind) { allowAddresses(kind, options.addresses); });
  for (const char* const name : {"--proxy", "--ca-dir", "--certificates", "--allow-address"}) {
    command.needs(name, "--refresh");
  }
}

RefreshSettings crlRefreshSettings(const CRLRefreshOptions& options) {
  RefreshSettings settings;
  settings.trustDirectory = options.directory.value_or(kCADirectory);
  requireHashDirectory("--ca-dir", settings.trustDirectory);
  if (options.proxy) settings.retrieval.proxy = parseProxy(*options.proxy);
  settings.certificates = readCertificates(options.certificates);
  settings.addresses = options.addresses;
  settings.all = true;
  settings.onlyNamed = true;
  return settings;
}

bool RefreshedCRL::failed() const noexcept {
  return result.result == RefreshResult::kFailed ||
         result.result == RefreshResult::kFailedOldIsGood;
}

RefreshedCRL refreshedCRL(RefreshSettings settings, const Uri& uri) {
  settings.uris = {uri};
  RefreshedCRL refreshed;
  refreshed.before = inCache(uri);
  // Who asks by hand has a reason to think that the host is well again.
  CRLCacheView().forget(uri);
  refreshed.result = refresh(settings).entries().front();
  refreshed.after = inCache(uri);
  return refreshed;
}

std::string changeText(const RefreshedCRL& refreshed) {
  if (refreshed.failed()) {
    const std::string text = "not refreshed: " + refreshed.result.reason;
    if (!refreshed.result.nextUpdate) return text + "; there is no good one in the cache";
    return text + "; the one in the cache is good until " + timeText(*refreshed.result.nextUpdate);
  }
  if (refreshed.after.empty()) return "fetched, and gone again from the cache";
  const Facts after = summary(refreshed.after);
  if (refreshed.result.result != RefreshResult::kUpdated) {
    return "not modified: " + comparison(Facts(), after);
  }
  return (refreshed.before.empty() ? "stored: " : "updated: ") +
         comparison(summary(refreshed.before), after);
}

Facts changeFacts(const RefreshedCRL& refreshed) {
  const std::string& reason = refreshed.result.reason;
  return Facts::Object{{"result", wordOfResult(refreshed.result.result)},
                       {"reason", reason.empty() ? Facts() : Facts(reason)},
                       {"before", summary(refreshed.before)}};
}

}  // namespace Velantrix::Tool
