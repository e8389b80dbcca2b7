// Owners of the few OpenSSL objects that the tool handles itself.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace Velantrix::Tool {

/// Frees what OpenSSL hands out for good. Only the types named here can be owned.
struct Free {
  void operator()(BIO* native) const noexcept { BIO_free_all(native); }
  void operator()(BASIC_CONSTRAINTS* native) const noexcept { BASIC_CONSTRAINTS_free(native); }
  void operator()(GENERAL_NAMES* native) const noexcept { GENERAL_NAMES_free(native); }
  void operator()(STACK_OF(OPENSSL_STRING) * native) const noexcept { X509_email_free(native); }
};

template <class T>
using Owned = std::unique_ptr<T, Free>;

/// Drops the errors that OpenSSL queues while it lives, so that nobody is blamed for them later.
class ErrorMark {
 public:
  ErrorMark() noexcept { static_cast<void>(ERR_set_mark()); }
  ~ErrorMark() { static_cast<void>(ERR_pop_to_mark()); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
};

}  // namespace Velantrix::Tool
