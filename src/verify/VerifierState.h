// What a verifier keeps to itself.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "verify/VouchedChain.h"

#include <pkx509/Verifier.h>

#include <openssl/x509_vfy.h>

#include <chrono>
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

  const bool useOpenSSLRevocation;
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
  std::vector<FetchRecord::Note> fetchNotes;  // of the last call
  std::optional<VouchedChain> vouched;
  Owned<X509_STORE_CTX> context;
};

}  // namespace Velantrix::Crypto::PKX509
