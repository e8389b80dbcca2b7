#include "verify/PathRecheck.h"

#include "foundation/openssl/OpenSSLOwners.h"
#include "report/PathFindings.h"
#include "verify/ContextObjection.h"
#include "verify/StoreCallbacks.h"
#include "verify/VerifierPaths.h"

#include <pkx509/VerificationReport.h>
#include <velantrix/CertificateFactory.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <exception>
#include <new>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

int recheckIndex() {
  static const int index = newContextIndex();
  return index;
}

struct Look {
  Recheck extent;
  std::vector<Objection> found = {};
};

// Passes over what it may, so that nothing hides what comes after it.
int passOver(int ok, X509_STORE_CTX* context) {
  constexpr std::size_t kMaximum = VerificationReport::kMaximumFindings;
  auto* const look = static_cast<Look*>(X509_STORE_CTX_get_ex_data(context, recheckIndex()));
  if (ok != 0) return 1;
  try {
    if (look->found.size() < kMaximum) look->found.push_back(objectionOf(context));
  } catch (const std::exception&) {
    return 0;  // it ends here
  }
  const bool isSignature = ruleOf(X509_STORE_CTX_get_error(context)) == Rule::kCertificateSignature;
  return isSignature && look->extent == Recheck::kVouchedFor ? 0 : 1;
}

// As OpenSSL has it of a path that ends with nothing trusted.
int codeOfEnd(X509* end, bool alone) {
  if (X509_self_signed(end, 0) != 1) return X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
  return alone ? X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT : X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
}

// What is known without using a key.
std::vector<Objection> objectionsToStrangers(const STACK_OF(X509) * chain, const Time* checked) {
  constexpr int kMaximum = VerificationReport::kMaximumFindings;
  const int end = sk_X509_num(chain) - 1;
  X509* const last = sk_X509_value(chain, end);
  std::vector<Objection> found = {
      {CertificateFactory()(last, false), end, codeOfEnd(last, end == 0)}};
  if (checked == nullptr) return found;
  std::time_t time = checked->seconds();
  for (int i = 0; i <= std::min(end, kMaximum); ++i) {
    X509* const one = sk_X509_value(chain, i);
    if (X509_cmp_time(X509_get0_notAfter(one), &time) < 0) {
      found.push_back({CertificateFactory()(one, false), i, X509_V_ERR_CERT_HAS_EXPIRED});
    }
  }
  return found;
}

// The trusted end, if there is one, and what lies below it without the certificate in question. They
// are borrowed.
struct Parts {
  Parts(const STACK_OF(X509) * chain, bool endsTrusted)
      : trusted(sk_X509_new_null()), below(sk_X509_new_null()) {
    const int end = sk_X509_num(chain) - (endsTrusted ? 1 : 0);
    bool pushed = trusted != nullptr && below != nullptr;
    if (pushed && endsTrusted) pushed = sk_X509_push(trusted, sk_X509_value(chain, end)) > 0;
    for (int i = 1; pushed && i < end; ++i) {
      pushed = sk_X509_push(below, sk_X509_value(chain, i)) > 0;
    }
    if (!pushed) {
      free();
      throw std::bad_alloc();
    }
  }
  ~Parts() { free(); }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  STACK_OF(X509) * trusted;
  STACK_OF(X509) * below;

 private:
  void free() const noexcept {
    sk_X509_free(trusted);
    sk_X509_free(below);
  }
};

bool endsTrusted(const X509_STORE_CTX* context) noexcept {
  const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
  return sk_X509_num(chain) > X509_STORE_CTX_get_num_untrusted(context);
}

}  // namespace

std::vector<Objection> objectionsToPath(X509_STORE_CTX* context, int securityLevel,
                                        const Time& checked, Recheck extent) {
  const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
  if (sk_X509_num(chain) < 1) return {};
  const ErrorScope errors;
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(context));
  const bool hasTime = (flags & X509_V_FLAG_NO_CHECK_TIME) == 0;
  if (extent == Recheck::kVouchedFor && !endsTrusted(context)) {
    return objectionsToStrangers(chain, hasTime ? &checked : nullptr);
  }
  Look look{extent};
  const Parts parts(chain, endsTrusted(context));
  const Owned<X509_STORE_CTX> again(X509_STORE_CTX_new());
  if (again == nullptr ||
      X509_STORE_CTX_init(again.get(), nullptr, sk_X509_value(chain, 0), parts.below) != 1 ||
      X509_STORE_CTX_set_ex_data(again.get(), recheckIndex(), &look) != 1) {
    throw std::bad_alloc();
  }
  X509_STORE_CTX_set0_trusted_stack(again.get(), parts.trusted);
  X509_VERIFY_PARAM* const param = X509_STORE_CTX_get0_param(again.get());
  if (X509_VERIFY_PARAM_set1(param, X509_STORE_CTX_get0_param(context)) != 1) {
    throw std::bad_alloc();
  }
  X509_VERIFY_PARAM_clear_flags(param, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  if (hasTime) X509_VERIFY_PARAM_set_time(param, checked.seconds());
  X509_VERIFY_PARAM_set_auth_level(param, securityLevelOf(context, securityLevel));
  X509_STORE_CTX_set_verify_cb(again.get(), passOver);
  // Where OpenSSL fails without an objection, nothing is known to be wrong.
  static_cast<void>(X509_verify_cert(again.get()));
  return std::move(look.found);
}

}  // namespace Velantrix::Crypto::PKX509
