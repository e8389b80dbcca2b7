// What a verifier keeps to itself.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "report/Evidence.h"
#include "verify/VerifierPaths.h"
#include "verify/VouchedChain.h"

#include <pkx509/Verifier.h>

#include <openssl/x509_vfy.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct Verifier::State {
  explicit State(bool openSSLRevocation) noexcept : useOpenSSLRevocation(openSSLRevocation) {}

  VerificationRun::Limits limits() const {
    return {.networkTime = limitOf(networkSeconds),
            .processorTime = limitOf(processorSeconds),
            .addresses = addresses};
  }
  // 0 stands for no limit.
  static std::optional<std::chrono::seconds> limitOf(unsigned int seconds) noexcept {
    if (seconds == 0) return std::nullopt;
    return std::chrono::seconds(seconds);
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
  void logLine(const Verifier& verifier) const noexcept;
  // The evidence is complete: whoever waits for it gets it.
  void end(const Verifier& verifier, VerificationRun& run,
           std::chrono::steady_clock::time_point start) noexcept;

  // For a report. Conditions are what needs no second look at the path.
  Surroundings conditions(const Verifier& verifier) const;
  Surroundings surroundings(const Verifier& verifier) const;
  bool hasToExplain() const noexcept;
  bool pathIsInQuestion() const noexcept;
  VerificationReport::Origin originOf(const RefCertificate& one, std::size_t depth,
                                      const Verifier& verifier) const;
  static std::string onlyTrustDirectory(const ObjectStore& store);

  const bool useOpenSSLRevocation;
  Evidence evidence;                    // of the last call
  Time verifiedAt;                      // when that was
  int leastSecurityLevel = 0;           // beside the context's own
  bool logsLine = false;                // of a failure, whatever the process has chosen
  std::optional<bool> decidedByItself;  // by Verifier::checkRevocationStatus(), all lists together
  InstallCallbacks* installCallbacks = nullptr;  // beside the verifier's own; may be none
  bool used = false;  // the context has been through X509_verify_cert, which takes it only once
  bool remainingApplied = false;  // every CRL that is left for `lastCertificate` has counted
  unsigned int networkSeconds = 60;
  unsigned int processorSeconds = 20;
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
