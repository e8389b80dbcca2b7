#include "report/OutcomeRecord.h"

#include "foundation/run/VerificationRun.h"

#include <cstddef>
#include <string>

namespace Velantrix::Crypto::PKX509 {

using Revocation::Reason;
using Revocation::Statement;

thread_local OutcomeRecord* OutcomeRecord::innermost_ = nullptr;

OutcomeRecord::OutcomeRecord(Revocation::Outcome* outcome) noexcept
    : outcome_(outcome), run_(VerificationRun::current()), outer_(innermost_) {
  innermost_ = this;
}

OutcomeRecord::~OutcomeRecord() { innermost_ = outer_; }

Revocation::Outcome* OutcomeRecord::current() noexcept {
  if (innermost_ == nullptr || innermost_->run_ != VerificationRun::current()) return nullptr;
  return innermost_->outcome_;
}

Statement OutcomeRecord::statementOn(const RefCertificateRevocationList& crl) {
  Statement statement;
  statement.kind = crl->isDeltaCRL() ? Statement::Kind::kDeltaCRL : Statement::Kind::kCRL;
  statement.crl = crl;
  return statement;
}

void OutcomeRecord::setAside(Reason reason, const Statement& statement, std::string_view detail,
                             Revocation::AboutSigner signer) noexcept {
  note([&](Revocation::Outcome& outcome) {
    std::shared_ptr<const Revocation::AboutSigner> about;
    if (!signer.certificate.empty()) {
      about = std::make_shared<const Revocation::AboutSigner>(std::move(signer));
    }
    outcome.setAsideFor(reason, statement, std::string(detail), about);
  });
}

void OutcomeRecord::setAside(Reason reason, const RefCertificateRevocationList& crl,
                             std::string_view detail, Revocation::AboutSigner signer) noexcept {
  if (current() == nullptr) return;
  try {
    setAside(reason, statementOn(crl), detail, std::move(signer));
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

void OutcomeRecord::leave(std::shared_ptr<const LeftBehind> evidence) noexcept {
  if (innermost_ != nullptr) innermost_->left_ = std::move(evidence);
}

std::shared_ptr<const LeftBehind> OutcomeRecord::take() noexcept {
  return innermost_ == nullptr ? nullptr : std::exchange(innermost_->left_, nullptr);
}

Reason reasonAgainstSigner(const LeftBehind* verification) noexcept {
  if (verification == nullptr) return Reason::kSignerNotValid;
  const Evidence& evidence = verification->evidence;
  if (evidence.refusal != nullptr) {
    const bool circle = evidence.refusal == VerificationRun::kDependsOnItself;
    return circle ? Reason::kRestsOnItself : Reason::kTooManyNested;
  }
  const auto failed = static_cast<std::size_t>(evidence.failedDepth.value_or(-1));
  if (failed >= evidence.revocation.size()) return Reason::kSignerNotValid;
  const Revocation::Outcome& outcome = evidence.revocation[failed];
  if (outcome.status == Revocation::Status::kRevoked) {
    return failed == 0 ? Reason::kSignerRevoked : Reason::kSignerNotValid;
  }
  for (const Revocation::SetAside& one : outcome.setAside) {
    if (one.reason == Reason::kRestsOnItself || one.reason == Reason::kTooManyNested) {
      return one.reason;
    }
  }
  return Reason::kSignerUndetermined;
}

}  // namespace Velantrix::Crypto::PKX509
