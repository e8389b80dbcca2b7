// What is found out about one certificate's revocation, noted deep down where it happens.
//
//   Revocation::Outcome outcome;
//   const OutcomeRecord record(&outcome);              // around the check of the certificate
//   ...
//   OutcomeRecord::setAside(Reason::kWrongSignature, OutcomeRecord::statementOn(crl));
//
// No verdict depends on it: nothing is thrown, and what there is no memory for is not noted.
#pragma once

#include "report/Evidence.h"

#include <velantrix/NonCopyable.h>

#include <exception>
#include <memory>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun;

class OutcomeRecord : private NonCopyable {
 public:
  // Of how many statements it is told that they decided: a stranger may serve any number.
  static constexpr std::size_t kMaximumDecisive = 16;

  // For the run that goes on now; borrowed. Null: nothing is noted, nor in records around this one.
  explicit OutcomeRecord(Revocation::Outcome* outcome) noexcept;
  ~OutcomeRecord();

  // Calls `note` with the outcome of the certificate that is being checked in the run that goes on
  // now; not at all where none is. A run that is nested in the check begins with none.
  template <class Note>
  static void note(Note&& note) noexcept {
    Revocation::Outcome* const outcome = current();
    if (outcome == nullptr) return;
    try {
      std::forward<Note>(note)(*outcome);
    } catch (const std::exception&) {
      // What is only told must not cost more than the telling.
    }
  }

  // The handle is shared, and no text is made.
  static Revocation::Statement statementOn(const RefCertificateRevocationList& crl);

  static void setAside(Revocation::Reason reason, const Revocation::Statement& statement,
                       std::string_view detail = {}, Revocation::AboutSigner signer = {}) noexcept;
  static void setAside(Revocation::Reason reason, const RefCertificateRevocationList& crl,
                       std::string_view detail = {}, Revocation::AboutSigner signer = {}) noexcept;

  // Whether the verification around the run that goes on now wants to know what it left behind.
  static bool isAwaited() noexcept { return innermost_ != nullptr; }
  static void leave(std::shared_ptr<const LeftBehind> evidence) noexcept;
  // What the last nested verification that failed has left; empty after it has been taken.
  static std::shared_ptr<const LeftBehind> take() noexcept;

 private:
  static Revocation::Outcome* current() noexcept;

  static thread_local OutcomeRecord* innermost_;

  Revocation::Outcome* outcome_;
  const VerificationRun* run_;
  OutcomeRecord* outer_;
  std::shared_ptr<const LeftBehind> left_;
};

// Why the signer of a statement does not do, where a verification of its own has failed.
Revocation::Reason reasonAgainstSigner(const LeftBehind* verification) noexcept;

}  // namespace Velantrix::Crypto::PKX509
