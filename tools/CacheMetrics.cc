#include "CacheMetrics.h"

#include "Printable.h"
#include "Status.h"
#include "foundation/base/Hex.h"
#include "foundation/base/URIText.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/Uri.h>

#include <openssl/evp.h>

#include <array>
#include <filesystem>

namespace Velantrix::Tool {

using Crypto::PKX509::CRLCacheView;
using Crypto::PKX509::HashDirLookupMethod;

namespace {

constexpr std::size_t kDigestOctets = 16;

std::string digestOf(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1) {
    throw ToolError("SHA-256 is not available");
  }
  std::string digits;
  for (std::size_t i = 0; i < kDigestOctets; ++i) {
    digits += kLowerHexDigits[digest[i] >> 4];
    digits += kLowerHexDigits[digest[i] & 0x0f];
  }
  return digits;  // as sha256sum prints them
}

// Two files may name one URI, and a file anything; names of series have to differ.
bool isNamedBy(const CacheFile& file, const Uri& uri) {
  if (uri.isNull()) return false;
  return std::filesystem::path(file.file).filename().string() == HashDirLookupMethod::fileName(uri);
}

std::string labelsOf(const CacheFile& file) {
  const Uri uri(file.uri);
  if (!isNamedBy(file, uri)) return "{uri=\"" + labelValue("file:" + file.file) + "\"}";
  const std::string shown = withoutSecrets(uri);
  const std::string labels = "{uri=\"" + labelValue(shown) + '"';
  if (shown == uri.canonicalized()) return labels + '}';
  return labels + ",digest=\"" + digestOf(uri.canonicalized()) + "\"}";
}

// What stands before the normal form in what is hashed.
std::string_view prefixOf(CRLCacheView::Failing::Of of) noexcept {
  switch (of) {
    case CRLCacheView::Failing::Of::kHost:
      return "host ";
    case CRLCacheView::Failing::Of::kResponder:
      return "ocsp ";
    case CRLCacheView::Failing::Of::kURI:
      break;
  }
  return "";
}

std::string labelsOf(const CRLCacheView::Failing& failing) {
  const bool isResponder = failing.of == CRLCacheView::Failing::Of::kResponder;
  const std::string labels =
      "{uri=\"" + labelValue((isResponder ? "ocsp:" : "") + failing.place) + '"';
  // As of a file: it is needed only where something was left out.
  const std::string digest = failing.sha256.substr(0, 2 * kDigestOctets);
  if (digestOf(std::string(prefixOf(failing.of)) + failing.place) == digest) return labels + '}';
  return labels + ",digest=\"" + digest + "\"}";
}

struct Metric {
  const char* name;
  const char* help;
  std::int64_t CacheMetrics::Series::*value;
  bool ofCRL;  // what has none has no such value
};

constexpr std::array kMetrics = {
    Metric{"pkx509_crl_next_update_seconds",
           "Seconds until the CRL in the cache runs out; negative when it has.",
           &CacheMetrics::Series::left, true},
    Metric{"pkx509_crl_age_seconds", "Seconds since the thisUpdate of the CRL in the cache.",
           &CacheMetrics::Series::age, true},
    Metric{"pkx509_crl_fetch_age_seconds",
           "Seconds since the host gave or confirmed the CRL in the cache.",
           &CacheMetrics::Series::fetchAge, true},
    Metric{"pkx509_crl_size_bytes", "Size of the file in the cache.", &CacheMetrics::Series::size,
           true},
    Metric{"pkx509_crl_entries", "Revoked certificates that the CRL in the cache lists.",
           &CacheMetrics::Series::entries, true},
    Metric{"pkx509_crl_failures", "Fetches that failed since the URI or its host answered last.",
           &CacheMetrics::Series::failures, false}};

void appendHead(std::string& out, const std::string& name, const char* help) {
  out += "# HELP " + name + ' ' + help + "\n# TYPE " + name + " gauge\n";
}

void appendTotal(std::string& out, const std::string& name, const char* help, std::int64_t value) {
  appendHead(out, name, help);
  out += name + ' ' + std::to_string(value) + '\n';
}

}  // namespace

std::string labelValue(std::string_view text) {
  std::string out;
  for (const char c : printable(text)) {
    // What `printable` escaped has a backslash, too: it reads back as it would be shown.
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out;
}

void CacheMetrics::add(const CacheFile& file) {
  ++totals_.files;
  totals_.bytes += static_cast<std::int64_t>(file.size);
  if (file.state == CacheFile::State::kExpired) ++totals_.expired;
  if (file.state == CacheFile::State::kUnreadable) ++totals_.unreadable;
  if (file.failure) ++totals_.failing;

  Series series{.labels = labelsOf(file), .crl = file.hasCRL()};
  const auto since = [this](const std::optional<Time>& then) {
    return then ? now_.seconds() - then->seconds() : 0;
  };
  series.left = -since(file.expires);
  series.age = since(file.thisUpdate);
  series.fetchAge = since(file.fetched.value_or(file.stored));
  series.size = static_cast<std::int64_t>(file.size);
  series.entries = static_cast<std::int64_t>(file.entries);
  series.failures = file.failure ? file.failure->inARow : 0;
  all_.push_back(std::move(series));
}

void CacheMetrics::add(const CRLCacheView::Failing& failing) {
  Series series{.labels = labelsOf(failing)};
  series.failures = failing.failure.inARow;
  all_.push_back(std::move(series));
}

std::string CacheMetrics::text() const {
  std::string out;
  for (const Metric& metric : kMetrics) {
    appendHead(out, metric.name, metric.help);
    for (const Series& series : all_) {
      if (metric.ofCRL && !series.crl) continue;
      out += metric.name + series.labels + ' ' + std::to_string(series.*metric.value) + '\n';
    }
  }
  appendTotal(out, "pkx509_crl_cache_files", "Files in the cache.", totals_.files);
  appendTotal(out, "pkx509_crl_cache_bytes", "Size of all files in the cache.", totals_.bytes);
  appendTotal(out, "pkx509_crl_cache_expired", "Files whose CRL has run out.", totals_.expired);
  appendTotal(out, "pkx509_crl_cache_unreadable", "Files that hold no CRL that can be read.",
              totals_.unreadable);
  appendTotal(out, "pkx509_crl_cache_failing", "Files whose URI or host failed at the last fetch.",
              totals_.failing);
  return out;
}

}  // namespace Velantrix::Tool
