#include "FactsOutput.h"

#include "JsonText.h"
#include "StandardStreams.h"
#include "Status.h"

#include <utility>

namespace Velantrix::Tool {

int FactsOutput::add(Facts facts) {
  const int status = hasProblems(facts) ? kError : kAllValid;
  if (json_) {
    all_.push_back(std::move(facts));
  } else if (!quiet_) {
    writeOutput(factsText(facts));
  }
  return status;
}

void FactsOutput::addForPrograms(Facts facts) {
  if (json_) all_.push_back(std::move(facts));
}

void FactsOutput::finish() {
  if (json_) writeOutput(jsonText(std::exchange(all_, {})));
}

}  // namespace Velantrix::Tool
