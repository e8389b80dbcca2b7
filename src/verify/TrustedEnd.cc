#include "verify/TrustedEnd.h"

#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "store/TrustSources.h"
#include "verify/Namesakes.h"

namespace Velantrix::Crypto::PKX509 {

namespace {

int askOpenSSL(X509** issuer, X509_STORE_CTX* context, X509* certificate) {
  const OnlyTrustSources others;
  const X509_STORE_CTX_get_issuer_fn own =
      X509_STORE_get_get_issuer(X509_STORE_CTX_get0_store(context));
  return own == nullptr ? X509_STORE_CTX_get1_issuer(issuer, context, certificate)
                        : own(issuer, context, certificate);
}

bool hasIssued(X509_STORE_CTX* context, X509* certificate, X509* issuer) {
  return X509_STORE_CTX_get_check_issued(context)(context, certificate, issuer) != 0;
}

// The one that OpenSSL would take: the first that is valid now, else the one that was so last.
class Choice {
 public:
  Choice(X509_STORE_CTX* context, X509* certificate) noexcept
      : context_(context), certificate_(certificate) {}

  void consider(X509* candidate) {
    if (valid_ || !hasIssued(context_, certificate_, candidate)) return;
    const ASN1_TIME* const end = X509_get0_notAfter(candidate);
    valid_ = X509_cmp_timeframe(X509_STORE_CTX_get0_param(context_), X509_get0_notBefore(candidate),
                                end) == 0;
    if (valid_ || best_ == nullptr || ASN1_TIME_compare(end, X509_get0_notAfter(best_)) > 0) {
      best_ = candidate;
    }
  }
  X509* best() const noexcept { return best_; }

 private:
  X509_STORE_CTX* context_;
  X509* certificate_;
  X509* best_ = nullptr;
  bool valid_ = false;
};

// Once OpenSSL has found an issuer in the store it looks there only, whatever else there is further
// up.
bool looksInStoreOnly(const X509_STORE_CTX* context) noexcept {
  return X509_STORE_CTX_get_error_depth(context) + 1 > X509_STORE_CTX_get_num_untrusted(context);
}

// Whether the certificate, handed out as if it were the store's, is a step of the path and no end.
bool isStep(X509* certificate) {
  return X509_self_signed(certificate, 0) == 0 && X509_get0_trust_objects(certificate) == nullptr;
}

X509* nextStep(X509_STORE_CTX* context, X509* certificate) {
  Namesakes* const namesakes = Namesakes::of(context);
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(context));
  if (namesakes == nullptr || (flags & X509_V_FLAG_PARTIAL_CHAIN) != 0 ||
      !looksInStoreOnly(context)) {
    return nullptr;
  }
  Choice choice(context, certificate);
  for (int i = 0; i < sk_X509_num(namesakes->stack()); ++i) {
    X509* const candidate = sk_X509_value(namesakes->stack(), i);
    if (isStep(candidate)) choice.consider(candidate);
  }
  return choice.best() != nullptr && namesakes->handOut(choice.best()) ? choice.best() : nullptr;
}

// The issuer among the certificates of trusted sources; of the store's own it has been told.
Owned<X509> trustedIssuer(X509_STORE_CTX* context, X509* certificate, bool storeHasNone) {
  const TrustSources sources(context);
  const X509_NAME* const name = X509_get_issuer_name(certificate);
  const Owned<STACK_OF(X509)> candidates =
      storeHasNone ? sources.overlooked(name) : sources.certificates(name);
  Choice choice(context, certificate);
  for (int i = 0; i < sk_X509_num(candidates.get()); ++i) {
    choice.consider(sk_X509_value(candidates.get(), i));
  }
  if (choice.best() == nullptr || X509_up_ref(choice.best()) != 1) return {};
  return Owned<X509>(choice.best());
}

}  // namespace

void TrustedEnd::install(X509_STORE* store) noexcept {
  X509_STORE_set_get_issuer(store, s_get_issuer);
  X509_STORE_set_lookup_certs(store, s_lookup_certs);
  X509_STORE_set_check_issued(store, Namesakes::s_check_issued);
}

int TrustedEnd::s_get_issuer(X509** issuer, X509_STORE_CTX* context, X509* certificate) {
  return guardedCallback(-1, [&] {
    *issuer = nullptr;
    X509* answer = nullptr;
    const int result = askOpenSSL(&answer, context, certificate);
    Owned<X509> found(answer);
    if (result < 0) return result;
    const bool storeHasNone = found == nullptr;
    if (!storeHasNone && !TrustSources(context).mayEndPath(found.get())) found.reset();
    const Namesakes* const namesakes = Namesakes::of(context);
    const bool thorough = namesakes == nullptr || namesakes->areGathered();
    if (found == nullptr && thorough) {
      found = trustedIssuer(context, certificate, storeHasNone);
    }
    if (found == nullptr) {
      X509* const step = nextStep(context, certificate);
      if (step != nullptr && X509_up_ref(step) == 1) found.reset(step);
    }
    *issuer = found.release();
    return *issuer == nullptr ? 0 : 1;
  });
}

// With X509_V_FLAG_PARTIAL_CHAIN the certificate itself may be trusted.
STACK_OF(X509) * TrustedEnd::s_lookup_certs(X509_STORE_CTX* context, const X509_NAME* subject) {
  return guardedCallback(static_cast<STACK_OF(X509)*>(nullptr),
                         [&] { return TrustSources(context).certificates(subject).release(); });
}

}  // namespace Velantrix::Crypto::PKX509
