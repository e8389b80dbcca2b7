#include "unit/ocsp/VerifyWatch.h"

#include <pkx509/Verifier.h>

#include <openssl/x509_vfy.h>

#include <dlfcn.h>

namespace Velantrix::Test {

namespace {

VerifyWatch* g_verifyWatch = nullptr;  // for one thread

}  // namespace

VerifyWatch::VerifyWatch() { g_verifyWatch = this; }
VerifyWatch::~VerifyWatch() { g_verifyWatch = nullptr; }

void VerifyWatch::see(X509_STORE_CTX* context) {
  const Crypto::PKX509::Verifier* const verifier = Crypto::PKX509::Verifier::of(context);
  VerificationSeen seen{context,
                        verifier == nullptr ? nullptr : verifier->parent(),
                        X509_STORE_CTX_get0_store(context),
                        X509_STORE_CTX_get0_cert(context),
                        {},
                        X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(context))};
  const STACK_OF(X509)* const untrusted = X509_STORE_CTX_get0_untrusted(context);
  for (int i = 0; i < sk_X509_num(untrusted); ++i) {
    seen.untrusted.push_back(sk_X509_value(untrusted, i));
  }
  runs_.push_back(seen);
}

}  // namespace Velantrix::Test

extern "C" __attribute__((visibility("default"))) int X509_verify_cert(X509_STORE_CTX* context) {
  static const auto real =
      reinterpret_cast<int (*)(X509_STORE_CTX*)>(dlsym(RTLD_NEXT, "X509_verify_cert"));
  if (Velantrix::Test::g_verifyWatch != nullptr) Velantrix::Test::g_verifyWatch->see(context);
  return real(context);
}
