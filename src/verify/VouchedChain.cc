#include "verify/VouchedChain.h"

#include "foundation/base/Log.h"
#include "foundation/openssl/KnownSignatures.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CertificateFactory.h>

#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"VouchedChain", "VouchedChain"};

Owned<X509> hold(X509* certificate) {
  return certificate == nullptr ? Owned<X509>() : newReference(certificate, kHere);
}

std::size_t lengthOf(const STACK_OF(X509) * chain) noexcept {
  return chain == nullptr ? 0 : static_cast<std::size_t>(sk_X509_num(chain));
}

X509* at(const STACK_OF(X509) * chain, std::size_t index) noexcept {
  return sk_X509_value(chain, static_cast<int>(index));
}

bool endIsTrusted(const X509_STORE_CTX* context, std::size_t length) noexcept {
  return static_cast<std::size_t>(X509_STORE_CTX_get_num_untrusted(context)) < length;
}

// Whether the store, or what feeds it, has this very certificate.
bool storeHas(X509_STORE_CTX* context, X509* certificate) {
  // Lookup methods are asked as when OpenSSL builds a path; what one of them throws comes out here.
  VerificationRun shelter{VerificationRun::Shelter{}};
  const X509_NAME* const name = X509_get_subject_name(certificate);
  const Owned<STACK_OF(X509)> held(X509_STORE_CTX_get1_certs(context, name));
  // What a lookup method answers does not stay in the store.
  const Owned<X509_OBJECT> answer(X509_STORE_CTX_get_obj_by_subject(context, X509_LU_X509, name));
  shelter.rethrowParked();
  X509* const answered = answer == nullptr ? nullptr : X509_OBJECT_get0_X509(answer.get());
  if (answered != nullptr && X509_cmp(answered, certificate) == 0) return true;
  const std::size_t count = lengthOf(held.get());
  for (std::size_t i = 0; i < count; ++i) {
    if (X509_cmp(at(held.get(), i), certificate) == 0) return true;
  }
  return false;
}

}  // namespace

VouchedChain::VouchedChain(X509_STORE_CTX* context) : context_(context) {
  const STACK_OF(X509)* const built = X509_STORE_CTX_get0_chain(context);
  const std::size_t length = lengthOf(built);
  chain_.reserve(length);
  for (std::size_t i = 0; i < length; ++i) chain_.push_back(hold(at(built, i)));
  anchored_ = endIsTrusted(context, length);
  lowest_ = length;
}

VouchedChain::VouchedChain(const std::list<RefCertificate>& chain, X509_STORE_CTX* context)
    : context_(context), lowest_(chain.size()) {
  chain_.reserve(chain.size());
  for (const RefCertificate& certificate : chain) chain_.push_back(hold(certificate));
}

VouchedChain::VouchedChain(const std::list<RefCertificate>& chain, bool anchored)
    : VouchedChain(chain, nullptr) {
  anchored_ = anchored;
}

bool VouchedChain::isOf(const X509_STORE_CTX* context) const noexcept {
  const STACK_OF(X509)* const built = X509_STORE_CTX_get0_chain(context);
  const std::size_t length = lengthOf(built);
  if (length != chain_.size() || anchored_ != endIsTrusted(context, length)) return false;
  for (std::size_t i = 0; i < length; ++i) {
    if (at(built, i) != chain_[i].get()) return false;
  }
  return true;
}

bool VouchedChain::beginsWith(const std::list<RefCertificate>& chain) const noexcept {
  if (chain.size() > chain_.size()) return false;
  std::size_t i = 0;
  for (const RefCertificate& certificate : chain) {
    if (certificate.operator x509_st*() != chain_[i++].get()) return false;
  }
  return true;
}

std::size_t VouchedChain::find(const X509* certificate) const noexcept {
  std::size_t position = chain_.size();
  // From the anchor down: one that stands there twice is vouched for where it stands first.
  for (; position > 0; --position) {
    const X509* const candidate = chain_[position - 1].get();
    if (candidate != nullptr && X509_cmp(candidate, certificate) == 0) break;
  }
  return position;
}

bool VouchedChain::vouchesFor(const X509* certificate) {
  std::size_t wanted = find(certificate);
  if (wanted-- == 0 || !anchored()) return false;
  while (lowest_ > wanted && !broken_) {
    if (verifyNext()) {
      --lowest_;
    } else {
      broken_ = true;
    }
  }
  return lowest_ <= wanted;
}

bool VouchedChain::anchored() {
  if (!anchored_.has_value()) {
    const ErrorScope errors;
    anchored_ =
        !chain_.empty() && chain_.back() != nullptr && storeHas(context_, chain_.back().get());
  }
  return *anchored_;
}

// Whether the certificate below the lowest that is vouched for is vouched for as well.
bool VouchedChain::verifyNext() const {
  if (lowest_ == chain_.size()) return true;  // the anchor itself
  X509* const certificate = chain_[lowest_ - 1].get();
  if (certificate == nullptr) return false;
  return isSignedByHolder(certificate, chain_[lowest_].get());
}

bool ChainSubject::admits() {
  if (vouched()) return true;
  if (!std::exchange(told_, true)) {
    log(kPriorityInfo,
        "Verifier: no connection is made for a certificate that no trust anchor vouches for: " +
            CertificateFactory()(certificate_, false)->subject().asString());
  }
  return false;
}

}  // namespace Velantrix::Crypto::PKX509
