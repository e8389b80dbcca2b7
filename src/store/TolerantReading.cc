#include "store/TolerantReading.h"

#include "foundation/base/Log.h"
#include "foundation/run/VerificationRun.h"

namespace Velantrix::Crypto::PKX509 {

namespace {

thread_local TolerantReading* innermost = nullptr;

// Readers of files name them in front of the reason.
std::string withoutName(std::string_view what, std::string_view text) {
  const bool named = text.starts_with(what) && text.substr(what.size()).starts_with(": ");
  return std::string(named ? text.substr(what.size() + 2) : text);
}

}  // namespace

TolerantReading::TolerantReading() noexcept : run_(VerificationRun::current()), outer_(innermost) {
  innermost = this;
}

TolerantReading::~TolerantReading() { innermost = outer_; }

TolerantReading* TolerantReading::current() noexcept {
  if (innermost == nullptr || innermost->run_ != VerificationRun::current()) return nullptr;
  return innermost;
}

void TolerantReading::leftOut() noexcept {
  TolerantReading* const reading = current();
  if (reading == nullptr) return;
  reading->cut_ = true;
  reading->unsettled_ = true;
}

void TolerantReading::passOver(std::string_view what, const Exception& failure) {
  cut_ = true;
  const std::string& detail = failure.stringParameter();
  const std::string reason = withoutName(what, detail.empty() ? failure.what() : detail);
  log(kPriorityDebug, "Passed over " + std::string(what) + ": " + reason);
  if (reason_.empty()) reason_ = reason;
}

}  // namespace Velantrix::Crypto::PKX509
