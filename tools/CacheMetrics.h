// The cache of CRLs in the text format of Prometheus.
#pragma once

#include "CacheFile.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Tool {

/// What stands between the quotes of a label: backslash, quote and line end are escaped as the format
/// has it, and whatever else is not fit to be shown as `printable` does.
std::string labelValue(std::string_view text);

/// Collects what is measured of each file: the format wants the lines of one name together.
///
/// A series is named by its URI without what may be secret: user, password, query and fragment. Where
/// something was left out a second label, digest, keeps series apart: 32 digits of the SHA-256 of the
/// URI's normal form. A file that no look-up for the URI it names would open is named by its own path.
class CacheMetrics {
 public:
  explicit CacheMetrics(const Time& now) : now_(now) {}

  void add(const CacheFile& file);
  /// What failed and has no file there; a responder's URI has "ocsp:" before it.
  void add(const Crypto::PKX509::CRLCacheView::Failing& failing);
  std::string text() const;

  struct Series {
    std::string labels;
    bool crl = false;
    std::int64_t left = 0;
    std::int64_t age = 0;
    std::int64_t fetchAge = 0;
    std::int64_t size = 0;
    std::int64_t entries = 0;
    std::int64_t failures = 0;
  };

 private:
  struct Totals {
    std::int64_t files = 0;
    std::int64_t bytes = 0;
    std::int64_t expired = 0;
    std::int64_t unreadable = 0;
    std::int64_t failing = 0;
  };

  Time now_;
  Totals totals_;
  std::vector<Series> all_;
};

}  // namespace Velantrix::Tool
