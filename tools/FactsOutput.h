// How facts leave the tool.
#pragma once

#include "Facts.h"

namespace Velantrix::Tool {

/// Writes facts to standard output: as text each at once, as JSON all of them in one array.
class FactsOutput {
 public:
  explicit FactsOutput(bool json) noexcept : json_(json) {}

  /// @return `kError` when a part of the object is broken, `kAllValid` otherwise
  int add(Facts facts);
  /// What is to come after the last one.
  void finish();

 private:
  const bool json_;
  Facts::Array all_;
};

}  // namespace Velantrix::Tool
