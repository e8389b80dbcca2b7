#include "foundation/net/NetworkUse.h"

#include "foundation/base/Log.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CertificateFactory.h>

#include <algorithm>

namespace Velantrix::Crypto::PKX509 {

namespace {

thread_local ConnectionSubject* currentSubject = nullptr;

// What the run on this thread shares with the runs it is nested in; null outside a run.
NetworkTotals* totals() noexcept {
  VerificationRun* const run = VerificationRun::current();
  return run == nullptr ? nullptr : &run->network();
}

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
          "Verifier: no connection is made for a certificate that its issuer did "
          "not sign: " +
              CertificateFactory()(certificate_, false)->subject().asString());
    }
  }
  return *genuine_;
}

bool networkAdmitted() {
  // A run that is nested in the check of a certificate is about another certificate.
  if (currentSubject != nullptr && currentSubject->run_ == VerificationRun::current() &&
      !currentSubject->isGenuine()) {
    return false;
  }
  return networkTimeAdmitted();
}

bool networkTimeAdmitted() {
  NetworkTotals* const spent = totals();
  if (spent == nullptr || !spent->limit.has_value() || spent->time < *spent->limit) return true;
  if (!spent->timeLogged) {
    spent->timeLogged = true;
    log(kPriorityInfo,
        "Verifier: the time for the network is spent, the rest of this verification reaches no "
        "host");
  }
  return false;
}

NetworkTimer::NetworkTimer(Clock::duration bound) : start_(Clock::now()), deadline_(start_) {
  const NetworkTotals* const spent = totals();
  if (spent != nullptr && spent->limit.has_value()) {
    bound = std::min(bound, std::max(*spent->limit - spent->time, Clock::duration::zero()));
  }
  deadline_ += bound;
}

NetworkTimer::~NetworkTimer() {
  if (NetworkTotals* const spent = totals()) spent->time += Clock::now() - start_;
}

std::size_t admittedCRLBytes(std::size_t wanted) {
  NetworkTotals* const spent = totals();
  if (spent == nullptr) return wanted;
  const std::size_t left = kMaximumCRLBytes - std::min(spent->crlBytes, kMaximumCRLBytes);
  if (left == 0 && !spent->bytesLogged) {
    spent->bytesLogged = true;
    log(kPriorityInfo,
        "Verifier: too many bytes of CRLs, the rest of this verification fetches no more");
  }
  return std::min(wanted, left);
}

void countCRLBytes(std::size_t bytes) noexcept {
  if (NetworkTotals* const spent = totals()) spent->crlBytes += bytes;
}

}  // namespace Velantrix::Crypto::PKX509
