#include "verify/ConnectionSubject.h"

#include "foundation/base/Log.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CertificateFactory.h>

namespace Velantrix::Crypto::PKX509 {

namespace {
thread_local ConnectionSubject* currentSubject = nullptr;
}  // namespace

ConnectionSubject::ConnectionSubject(X509* certificate, X509* issuer) noexcept
    : certificate_(certificate),
      issuer_(issuer),
      run_(VerificationRun::current()),
      outer_(currentSubject) {
  currentSubject = this;
}

ConnectionSubject::~ConnectionSubject() { currentSubject = outer_; }

bool ConnectionSubject::isGenuine() {
  if (!genuine_.has_value()) {
    const ErrorScope errors;
    EVP_PKEY* const key = issuer_ == nullptr ? nullptr : X509_get0_pubkey(issuer_);
    genuine_ = issuer_ == nullptr || (key != nullptr && X509_verify(certificate_, key) == 1);
    if (!*genuine_) {
      log(kPriorityInfo,
          "Verifier: no connection is made for a certificate that its issuer did not sign: " +
              CertificateFactory()(certificate_, false)->subject().asString());
    }
  }
  return *genuine_;
}

bool connectionAdmitted() {
  // A run that is nested in the check of a certificate is about another certificate.
  if (currentSubject != nullptr && currentSubject->run_ == VerificationRun::current() &&
      !currentSubject->isGenuine()) {
    return false;
  }
  return NetworkBudget::hasTime();
}

}  // namespace Velantrix::Crypto::PKX509
