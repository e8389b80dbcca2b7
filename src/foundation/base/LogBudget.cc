#include "foundation/base/LogBudget.h"

#include "foundation/base/Log.h"

#include <string>

namespace Velantrix {

namespace {
thread_local LogBudget* currentBudget = nullptr;
}  // namespace

LogBudget::LogBudget(unsigned int lines) noexcept : outer_(currentBudget), left_(lines) {
  currentBudget = this;
}

LogBudget::~LogBudget() {
  currentBudget = outer_;
  if (leftOut_ == 0) return;
  try {
    logAlways(kPriorityInfo,
              "Verifier: " + std::to_string(leftOut_) + " lines of this verification are left out");
  } catch (...) {
    // No memory for the text: that lines are left out has been said.
  }
}

bool LogBudget::admitLine() noexcept {
  LogBudget* const budget = currentBudget;
  if (budget == nullptr) return true;
  if (budget->left_ > 0) {
    --budget->left_;
    return true;
  }
  if (++budget->leftOut_ == 1) {
    logAlways(kPriorityInfo,
              "Verifier: too many lines, further ones of this verification are left out");
  }
  return false;
}

}  // namespace Velantrix
