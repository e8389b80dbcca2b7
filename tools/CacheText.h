// The cache of CRLs as people read it.
#pragma once

#include "CacheFile.h"
#include "Terminal.h"
#include "Tree.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Velantrix::Tool {

/// "2 h 5 min", of the two largest units; "0 s" for no time.
std::string spanText(std::int64_t seconds);
/// "2 h 5 min left", or "expired 3 d ago".
std::string timeLeftText(std::int64_t seconds);
/// "512 B", "24 KiB", "1.4 MiB".
std::string sizeText(std::uint64_t octets);

/// A table whose lines are written as the files come: columns that can be compared, and below them what
/// has no length of its own.
class CacheTable {
 public:
  CacheTable(TextStyle style, const Time& now) : style_(style), now_(now) {}

  /// The lines for @p file; before those for the first one the heading.
  std::string add(const CacheFile& file);
  /// The lines for what failed and has no file there.
  std::string add(const Crypto::PKX509::CRLCacheView::Failing& failing);
  /// What there was in all.
  std::string sum() const;

 private:
  std::string heading();
  std::string paragraphOf(const std::string& text, Tree::Paint paint = Tree::Paint::kNone) const;
  std::string columns(const CacheFile& file) const;
  std::string details(const CacheFile& file) const;

  TextStyle style_;
  Time now_;
  bool headed_ = false;
  std::size_t files_ = 0;
  std::size_t expired_ = 0;
  std::size_t unreadable_ = 0;
  std::size_t failing_ = 0;
  std::size_t missing_ = 0;  // that failed
  std::uint64_t octets_ = 0;
};

}  // namespace Velantrix::Tool
