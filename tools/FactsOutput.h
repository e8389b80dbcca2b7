// How facts leave the tool.
#pragma once

#include "Facts.h"

namespace Velantrix::Tool {

/// Writes facts to standard output: as text each at once, as JSON all of them in one array.
class FactsOutput {
 public:
  /// @param quiet whether nothing is written at all
  explicit FactsOutput(bool json, bool quiet = false) noexcept : json_(json), quiet_(quiet) {}

  /// @return `kError` when a part of the object is broken, `kAllValid` otherwise
  int add(Facts facts);
  /// Adds what text has said otherwise.
  void addForPrograms(Facts facts);
  /// What is to come after the last one.
  void finish();

 private:
  const bool json_;
  const bool quiet_;
  Facts::Array all_;
};

}  // namespace Velantrix::Tool
