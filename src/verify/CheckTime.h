// The moment that a verification is about.
#pragma once

#include <velantrix/Time.h>

#include <openssl/x509_vfy.h>

#include <ctime>

namespace Velantrix::Crypto::PKX509 {

/// The time that the caller has set on the context, or now.
inline Time checkTime(X509_STORE_CTX* context) {
  const std::time_t wanted = X509_VERIFY_PARAM_get_time(X509_STORE_CTX_get0_param(context));
  return wanted != 0 ? Time::then(wanted, true) : Time::now();
}

/// A nested verification is about the same moment as the one that it serves.
inline void takeOverTime(X509_STORE_CTX* outer, X509_STORE_CTX* nested) {
  X509_VERIFY_PARAM* const from = X509_STORE_CTX_get0_param(outer);
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(from);
  if ((flags & X509_V_FLAG_USE_CHECK_TIME) != 0) {
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(nested), X509_VERIFY_PARAM_get_time(from));
  }
  X509_STORE_CTX_set_flags(nested, flags & X509_V_FLAG_NO_CHECK_TIME);
}

}  // namespace Velantrix::Crypto::PKX509
