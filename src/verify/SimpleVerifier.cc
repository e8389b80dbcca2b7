#include "foundation/base/Log.h"
#include "foundation/base/NoCancellation.h"
#include "report/Evidence.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/SimpleVerifier.h>
#include <pkx509/Verifier.h>
#include <velantrix/Exception.h>

#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr int kRefused = -1;  // beside OpenSSL's codes, which are not negative

using Terms = SimpleVerifier::Terms;
using std::chrono::milliseconds;

std::atomic<bool> conforming = false;
std::atomic<milliseconds> deadlineOfAll = milliseconds::max();

// The report is set also where an exception leaves.
int verdictOf(Verifier&& verifier, const Terms& terms, VerificationReport* report) {
  verifier.deadline(std::min<milliseconds>(terms.deadline, deadlineOfAll));
  verifier.stopToken(terms.stop);
  if (report == nullptr) return verifier.isValid();
  try {
    const int verdict = verifier.isValid();
    *report = verifier.report();
    return verdict;
  } catch (...) {
    *report = verifier.report();
    throw;
  }
}

int verdictOn(const RefCertificate& certificate, const RefObjectStore& store, const Terms& terms,
              VerificationReport* report) {
  if (conforming) return verdictOf(ConformingVerifier(store, certificate), terms, report);
  return verdictOf(Verifier(store, certificate, false), terms, report);
}

// A certificate without key-usage bits does not restrict its use.
bool allows(const RefCertificate& certificate, int keyUsage) {
  const unsigned int granted = certificate->keyUsage();
  return granted == 0 || (granted & static_cast<unsigned int>(keyUsage)) != 0;
}

}  // namespace

SimpleVerifier::SimpleVerifier() = default;
SimpleVerifier::~SimpleVerifier() = default;

CertificateVerifier* SimpleVerifier::instance() {
  static std::mutex guard;
  const std::lock_guard<std::mutex> lock(guard);
  if (s_instance == nullptr) s_instance = new SimpleVerifier;
  return s_instance;
}

void SimpleVerifier::useConformingVerifier(bool on) noexcept { conforming = on; }

void SimpleVerifier::useDeadline(milliseconds time) noexcept { deadlineOfAll = time; }

void SimpleVerifier::add(const RefLookupMethod& method) { lookupMethods.push_back(method); }

int SimpleVerifier::isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage) {
  return verdictOn(certificate, keyUsage, requireKeyUsage, Terms(), nullptr);
}

int SimpleVerifier::isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
                            const Terms& terms) {
  return verdictOn(certificate, keyUsage, requireKeyUsage, terms, nullptr);
}

int SimpleVerifier::isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
                            VerificationReport& report) {
  return isValid(certificate, keyUsage, requireKeyUsage, Terms(), report);
}

int SimpleVerifier::isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
                            const Terms& terms, VerificationReport& report) {
  report = VerificationReport();
  return verdictOn(certificate, keyUsage, requireKeyUsage, terms, &report);
}

int SimpleVerifier::verdictOn(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
                              const Terms& terms, VerificationReport* report) {
  const NoCancellation untilReturn;
  try {
    if (keyUsage != 0 && !allows(certificate, keyUsage)) {
      log(kPriorityDebug, "SimpleVerifier: Requested value is not present in the Key Usage.");
      if (requireKeyUsage) {
        countVerification(factsOf(Rule::kKeyUsage).outcome);
        if (report != nullptr) *report = keyUsageReport(certificate);
        return kRefused;
      }
    }
    RefObjectStore store(kCADirectory, X509_FILETYPE_PEM);
    for (const RefLookupMethod& method : lookupMethods) {
      method->store(store);
      store->add(method);
    }
    return PKX509::verdictOn(certificate, store, terms, report);
  } catch (const Exception& failure) {
    log(kPriorityDebug, "Cryptod::CMS::SimpleVerifier: Caught " + failure.asString());
    return kRefused;
  }
}

}  // namespace Velantrix::Crypto::PKX509
