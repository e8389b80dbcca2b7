// The chain that OpenSSL has built in a context, leaf first.
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/CertificateFactory.h>

#include <openssl/x509_vfy.h>

#include <vector>

namespace Velantrix::Crypto::PKX509 {

// Empty where there is none yet. The certificates are shared.
inline std::vector<RefCertificate> chainOf(const X509_STORE_CTX* context) {
  const STACK_OF(X509)* const built = X509_STORE_CTX_get0_chain(context);
  std::vector<RefCertificate> chain;
  for (int i = 0; i < sk_X509_num(built); ++i) {
    chain.push_back(CertificateFactory()(sk_X509_value(built, i), false));
  }
  return chain;
}

}  // namespace Velantrix::Crypto::PKX509
