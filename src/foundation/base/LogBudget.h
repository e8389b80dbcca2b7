// How many lines a thread may log.
//
//   const LogBudget budget(200);  // whoever answers for the whole
//   log(kPriorityDebug, "...");   // deep down, as often as it happens
//
// A stranger's certificate may name a hundred thousand places to look at, and a line of each would
// drown what everybody else logs. Beyond the budget lines are left out: one line says that this has
// begun, one at the end how many they were. What `logAlways()` writes is not counted.
#pragma once

#include <velantrix/NonCopyable.h>

namespace Velantrix {

class LogBudget : private NonCopyable {
 public:
  /// Holds for this thread, in place of none or of another, until it is destroyed.
  explicit LogBudget(unsigned int lines) noexcept;
  ~LogBudget();

  /// Counts one line. False when it is to be left out; a thread without a budget may write any.
  static bool admitLine() noexcept;

 private:
  LogBudget* outer_;
  unsigned int left_;
  unsigned long leftOut_ = 0;
};

}  // namespace Velantrix
