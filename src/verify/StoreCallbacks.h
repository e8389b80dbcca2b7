// What a context is made with: the callbacks of its OpenSSL store, for as long as it is made from it, and
// slots of its own.
//
//   const StoreCallbacks former(store);           // puts back what was there
//   X509_STORE_set_get_crl(store, getCRLCallback);
//   X509_STORE_CTX_init(context, store, ...);     // the context copies them
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>

#include <openssl/x509_vfy.h>

#include <new>

namespace Velantrix::Crypto::PKX509 {

// Installs callbacks on a store and puts the former ones back. OpenSSL has no setters for them on a
// context; a context copies them from its store when it is initialised.
class StoreCallbacks {
 public:
  explicit StoreCallbacks(X509_STORE* store) noexcept
      : store_(store),
        checkRevocation_(X509_STORE_get_check_revocation(store)),
        getCRL_(X509_STORE_get_get_crl(store)),
        certCRL_(X509_STORE_get_cert_crl(store)),
        getIssuer_(X509_STORE_get_get_issuer(store)),
        lookupCerts_(X509_STORE_get_lookup_certs(store)),
        checkIssued_(X509_STORE_get_check_issued(store)) {}
  ~StoreCallbacks() {
    X509_STORE_set_check_revocation(store_, checkRevocation_);
    X509_STORE_set_get_crl(store_, getCRL_);
    X509_STORE_set_cert_crl(store_, certCRL_);
    X509_STORE_set_get_issuer(store_, getIssuer_);
    X509_STORE_set_lookup_certs(store_, lookupCerts_);
    X509_STORE_set_check_issued(store_, checkIssued_);
  }
  StoreCallbacks(const StoreCallbacks&) = delete;
  StoreCallbacks& operator=(const StoreCallbacks&) = delete;

  X509_STORE_CTX_cert_crl_fn formerCertCRL() const noexcept { return certCRL_; }

 private:
  X509_STORE* store_;  // borrowed
  X509_STORE_CTX_check_revocation_fn checkRevocation_;
  X509_STORE_CTX_get_crl_fn getCRL_;
  X509_STORE_CTX_cert_crl_fn certCRL_;
  X509_STORE_CTX_get_issuer_fn getIssuer_;
  X509_STORE_CTX_lookup_certs_fn lookupCerts_;
  X509_STORE_CTX_check_issued_fn checkIssued_;
};

// What OpenSSL uses where a store has none of its own. It is not exported; a context that belongs to
// no store has it.
struct DefaultCallbacks {
  X509_STORE_CTX_cert_crl_fn certCRL = nullptr;
  X509_STORE_CTX_check_issued_fn checkIssued = nullptr;
  X509_STORE_CTX_verify_fn verify = nullptr;
};

inline const DefaultCallbacks& defaultCallbacks() {
  static const DefaultCallbacks functions = [] {
    const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    if (context == nullptr || X509_STORE_CTX_init(context.get(), nullptr, nullptr, nullptr) != 1) {
      throw std::bad_alloc();
    }
    return DefaultCallbacks{X509_STORE_CTX_get_cert_crl(context.get()),
                            X509_STORE_CTX_get_check_issued(context.get()),
                            X509_STORE_CTX_get_verify(context.get())};
  }();
  return functions;
}

// A new ex-data slot of contexts. Slot 0 is the application's.
inline int newContextIndex() {
  const int made = X509_STORE_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  if (made == -1) throw std::bad_alloc();  // its only way to fail; the next call tries again
  PKX509_ASSERT(made > 0);
  return made;
}

}  // namespace Velantrix::Crypto::PKX509
