// How OpenSSL asks for what may end a path: only what a trusted source has.
//
//   const StoreCallbacks former(store);
//   TrustedEnd::install(store);
//   X509_STORE_CTX_init(context, store, ...);
#pragma once

#include <openssl/x509_vfy.h>

namespace Velantrix::Crypto::PKX509 {

class TrustedEnd {
 public:
  // On the store, for contexts that are made from it meanwhile; Namesakes' callback with it.
  static void install(X509_STORE* store) noexcept;

 private:
  static int s_get_issuer(X509** issuer, X509_STORE_CTX* context, X509* certificate);
  static STACK_OF(X509) * s_lookup_certs(X509_STORE_CTX* context, const X509_NAME* subject);
};

}  // namespace Velantrix::Crypto::PKX509
