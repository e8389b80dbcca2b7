// What is found out about one certificate of the chain that OpenSSL has built, for the report.
//
//   Examined examined(&evidence, depth, certificate);
//   ...                                       // what notes outcomes and sources notes them here
//   examined.end(code);
//
// It is kept also when an exception ends the check, which is then what failed.
#pragma once

#include "foundation/base/Shortfall.h"
#include "report/OutcomeRecord.h"

#include <velantrix/NonCopyable.h>

#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class Examined : private NonCopyable {
 public:
  // Both borrowed; without evidence nobody is to know.
  Examined(Evidence* evidence, int depth, const X509* target) noexcept
      : evidence_(evidence),
        depth_(depth),
        record_(evidence == nullptr ? nullptr : &outcome_),
        about_(target) {}

  ~Examined() {
    if (evidence_ == nullptr) return;
    outcome_.cut = outcome_.cut || shortfall_.noted();
    const auto index = static_cast<std::size_t>(depth_);
    try {
      std::vector<Revocation::Outcome>& all = evidence_->revocation;
      if (all.empty()) all.reserve(kUsualLength);
      if (all.size() <= index) all.resize(index + 1);
      all[index] = std::move(outcome_);
    } catch (const std::exception&) {
      // What is only told must not cost more than the telling.
    }
    if (!good_) evidence_->failedDepth = depth_;
  }

  // Adds to what was found out about it before.
  void resume() noexcept {
    const auto index = static_cast<std::size_t>(depth_);
    if (evidence_ != nullptr && index < evidence_->revocation.size()) {
      outcome_ = std::move(evidence_->revocation[index]);
    }
  }
  // With an X509_V_ERR_* code; X509_V_OK where nothing was said against it.
  void end(int code) noexcept {
    outcome_.code = code;
    good_ = code == 0;
  }

 private:
  static constexpr std::size_t kUsualLength = 3;  // of a chain, without its anchor

  Evidence* evidence_;
  int depth_;
  bool good_ = false;
  Revocation::Outcome outcome_;
  OutcomeRecord record_;
  SourceRecord::About about_;
  Shortfall::Watch shortfall_;
};

}  // namespace Velantrix::Crypto::PKX509
