// What `pkx509 cache` tells of the cache of fetched CRLs.
#pragma once

#include "Value.h"

#include <pkx509/CRLCacheView.h>
#include <velantrix/Time.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Tool {

/// A file of the cache without its CRL, of which there may be a thousand large ones. Texts are as strangers wrote them; writers escape.
struct CacheFile {
  enum class State { kFresh, kExpired, kUnreadable };

  explicit CacheFile(const Crypto::PKX509::CRLCacheView::Entry& entry, const Time& now);

  bool hasCRL() const noexcept { return state == State::kFresh || state == State::kExpired; }

  State state = State::kUnreadable;
  std::string file;
  std::string uri;
  std::string issuer;
  std::string number;
  std::optional<Time> thisUpdate;
  std::optional<Time> nextUpdate;
  std::optional<Time> expires;
  std::size_t entries = 0;
  std::uint64_t size = 0;
  Time stored;
  std::optional<Time> fetched;
  std::string problem;  ///< why it cannot be read
  std::optional<Crypto::PKX509::CRLCacheView::Failure> failure;
};

/// The machine's cache, a file after the other.
/// @throws ToolError when it cannot be read
void visitCache(const Crypto::PKX509::CRLCacheView::Visitor& visitor);
/// The same, and then what failed and has no file there.
void visitCache(const Crypto::PKX509::CRLCacheView::Visitor& visitor,
                const Crypto::PKX509::CRLCacheView::FailingVisitor& failing);

/// For programs: lower case and hyphens.
std::string_view wordOf(CacheFile::State state) noexcept;
/// The object of the JSON output.
Value jsonOf(const CacheFile& file, const Time& now);
Value jsonOf(const Crypto::PKX509::CRLCacheView::Failing& failing);

}  // namespace Velantrix::Tool
