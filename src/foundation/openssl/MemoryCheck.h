// Whether an OpenSSL call failed for want of memory, and not for what it was given.
//
//   const MemoryCheck memory;
//   Owned<X509_CRL> crl(d2i_X509_CRL(nullptr, &position, length));
//   if (crl == nullptr) memory.orThrow();  // from here on it is the octets that are to blame
#pragma once

#include <openssl/err.h>

#include <new>

namespace Velantrix::Crypto {

/// To be made before the call. Errors that the call has queued are taken away where they are all
/// that is queued.
class MemoryCheck {
 public:
  MemoryCheck() noexcept : alone_(ERR_peek_error() == 0) {}

  /// @throws std::bad_alloc
  void orThrow() const {
    if (ranOut()) throw std::bad_alloc();
  }

 private:
  static bool isLack(unsigned long error) noexcept {
    return ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE;
  }

  // The lack is the first of several errors. Behind what was there before only the last one can be
  // told from the others.
  bool ranOut() const noexcept {
    bool lack = isLack(ERR_peek_last_error());
    if (!alone_) return lack;
    while (const unsigned long error = ERR_get_error()) lack = lack || isLack(error);
    return lack;
  }

  bool alone_;
};

}  // namespace Velantrix::Crypto
