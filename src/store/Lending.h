// How a lookup hands an object to OpenSSL: borrowed, since OpenSSL takes a reference of its own when
// the lookup has answered. Whoever answers holds the object until then.
//
//   if (!lend(certificate, ret)) return 0;
#pragma once

#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

namespace Velantrix::Crypto::PKX509 {

// The setters release what a record held before. OpenSSL's own lookups overwrite it, because a
// record holds a borrowed object while a lookup answers (crypto/x509/by_dir.c); so the release is
// made good.
inline bool keepHeld(const X509_OBJECT* ret) {
  if (X509* const x509 = X509_OBJECT_get0_X509(ret)) return X509_up_ref(x509) == 1;
  if (X509_CRL* const crl = X509_OBJECT_get0_X509_CRL(ret)) return X509_CRL_up_ref(crl) == 1;
  return true;
}

// The setters take a reference, which is given back.
inline bool lend(X509* certificate, X509_OBJECT* ret) {
  if (!keepHeld(ret) || X509_OBJECT_set1_X509(ret, certificate) != 1) return false;
  X509_free(certificate);
  return true;
}

inline bool lend(X509_CRL* crl, X509_OBJECT* ret) {
  if (!keepHeld(ret) || X509_OBJECT_set1_X509_CRL(ret, crl) != 1) return false;
  X509_CRL_free(crl);
  return true;
}

}  // namespace Velantrix::Crypto::PKX509
