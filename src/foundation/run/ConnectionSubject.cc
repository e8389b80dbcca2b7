#include "foundation/run/ConnectionSubject.h"

#include "foundation/net/NetworkBudget.h"
#include "foundation/run/VerificationRun.h"

namespace Velantrix::Crypto::PKX509 {

namespace {
thread_local ConnectionSubject* innermost = nullptr;
}  // namespace

ConnectionSubject::ConnectionSubject() noexcept
    : run_(VerificationRun::current()), outer_(innermost) {
  innermost = this;
}

ConnectionSubject::~ConnectionSubject() { innermost = outer_; }

ConnectionSubject* ConnectionSubject::current() noexcept {
  if (innermost == nullptr || innermost->run_ != VerificationRun::current()) return nullptr;
  return innermost;
}

bool connectionAdmitted() {
  ConnectionSubject* const subject = ConnectionSubject::current();
  if (subject != nullptr && !subject->admits()) return false;
  return NetworkBudget::hasTime();
}

bool isForStranger() {
  ConnectionSubject* const subject = ConnectionSubject::current();
  return subject != nullptr && !subject->vouched();
}

bool isVouchedFor(X509* certificate) {
  ConnectionSubject* const subject = ConnectionSubject::current();
  return subject != nullptr && subject->vouchesFor(certificate);
}

}  // namespace Velantrix::Crypto::PKX509
