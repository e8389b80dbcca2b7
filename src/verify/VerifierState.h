// What a verifier keeps to itself.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "report/Evidence.h"
#include "retrieval/WebRetriever.h"
#include "verify/VerifierPaths.h"
#include "verify/VouchedChain.h"

#include <pkx509/Verifier.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <optional>
#include <stop_token>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct Verifier::State {
  explicit State(bool openSSLRevocation) noexcept : useOpenSSLRevocation(openSSLRevocation) {}

  VerificationRun::Limits limits() const {
    return {.networkTime = limitOf(networkTime),
            .processorTime = limitOf(processorTime),
            .addresses = addresses,
            .wholeTime = wholeTime,
            .stop = stop};
  }
  // 0 stands for no limit.
  static std::optional<std::chrono::milliseconds> limitOf(std::chrono::milliseconds time) noexcept {
    if (time == std::chrono::milliseconds::zero()) return std::nullopt;
    return inRange(time);
  }
  // Longer than anything lasts, and the clock can still count it in nanoseconds.
  static std::chrono::milliseconds inRange(std::chrono::milliseconds time) noexcept {
    constexpr std::chrono::milliseconds kCentury = std::chrono::hours(24 * 36'500);
    return std::clamp(time, std::chrono::milliseconds::zero(), kCentury);
  }

  // For OpenSSL's verification callback, which it calls for each signature that was right: another one,
  // unless the verification is to end.
  static int goOn(int ok, X509_STORE_CTX* native) {
    return guardedCallback(0, [=] {
      if (VerificationRun::mayGoOn()) return ok;
      X509_STORE_CTX_set_error(native, X509_V_ERR_UNABLE_TO_GET_CRL);
      return 0;
    });
  }

  // How far the chain that OpenSSL has built in the context is vouched for.
  VouchedChain& vouchedChain() {
    if (!vouched.has_value() || !vouched->isOf(context.get())) vouched.emplace(context.get());
    return *vouched;
  }

  // Of a verification that begins; an earlier failure stays known.
  void beginEvidence(const Verifier& verifier) noexcept;
  // A callback of the caller's has the last word on what OpenSSL objects to, and tells nobody.
  void noteCallback(bool passed);
  // OpenSSL's own check of revocation is content with the CRL, or a callback of the caller's is.
  void noteContent(X509_STORE_CTX* native, X509_CRL* crl, X509* target) noexcept;
  void noteContent(bool passed) noexcept;
  // What OpenSSL objects to now. Of its own revocation check, with the CRL that it was given.
  void noteObjection();
  // What the check of revocation came to, and what Verifier::checkRevocationStatus() made of it.
  void noteOverride(bool passed) noexcept;
  // What left a verification, and what the run of one has used.
  void takeThrown(const std::exception_ptr& thrown) noexcept;
  void takeTotals(VerificationRun& run, std::chrono::steady_clock::time_point start) noexcept;
  Outcome failureOutcome(const Verifier& verifier) const noexcept;
  void countRun(const Verifier& verifier, const VerificationRun& run) const noexcept;
  // The evidence is complete: whoever waits for it gets it.
  void end(const Verifier& verifier, VerificationRun& run,
           std::chrono::steady_clock::time_point start) noexcept;

  // For a report. Conditions are what needs no second look at the path.
  Surroundings conditions(const Verifier& verifier) const;
  Surroundings surroundings(const Verifier& verifier) const;
  bool hasToExplain() const noexcept;
  bool pathIsInQuestion() const noexcept;
  void lookAgain(Surroundings& all) const;
  VerificationReport::Origin originOf(const RefCertificate& one, std::size_t depth,
                                      const Verifier& verifier) const;
  static std::string onlyTrustDirectory(const ObjectStore& store);

  // Has the run fetch as the settings say, where they are given and it is an outermost one.
  class Retrieving : private NonCopyable {
   public:
    Retrieving(const std::optional<RetrievalSettings>& settings, const VerificationRun& run);

   private:
    std::optional<WebRetriever> retriever_;
    std::optional<Retriever::Installed> installed_;
  };

  const bool useOpenSSLRevocation;
  std::optional<RetrievalSettings> retrieval;  // none: as it always was
  Evidence evidence;                           // of the last call
  Time verifiedAt;                             // when that was
  int leastSecurityLevel = 0;                  // beside the context's own
  bool logsLine = false;                       // of a failure, whatever the process has chosen
  std::optional<bool> decidedByItself;  // by Verifier::checkRevocationStatus(), all lists together
  InstallCallbacks* installCallbacks = nullptr;  // beside the verifier's own; may be none
  bool used = false;  // the context has been through X509_verify_cert, which takes it only once
  bool remainingApplied = false;  // every CRL that is left for `lastCertificate` has counted
  std::chrono::milliseconds networkTime{60'000};
  std::chrono::milliseconds processorTime{20'000};
  std::optional<std::chrono::milliseconds> wholeTime;
  std::stop_token stop;
  AddressPolicy addresses;
  X509_STORE_CTX_cert_crl_fn certCRL = nullptr;  // what certCRLCallback stands in front of
  X509_STORE_CTX* parent = nullptr;              // borrowed
  unsigned int currentCRLScore = 0;
  unsigned int currentReasons = 0;
  RefCertificate currentIssuer;
  RefCertificateRevocationList handedOut;     // to OpenSSL, the last one
  std::vector<FetchRecord::Note> fetchNotes;  // of the last call
  std::optional<VouchedChain> vouched;
  Owned<X509_STORE_CTX> context;
};

}  // namespace Velantrix::Crypto::PKX509
