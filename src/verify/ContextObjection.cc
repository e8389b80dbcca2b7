#include "verify/ContextObjection.h"

#include "foundation/openssl/References.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

// One that cannot be read is left out.
RefCertificateRevocationList crlOf(X509_STORE_CTX* context) {
  // Then the one before, if there was one, is gone already, and the context still points to it.
  if (X509_STORE_CTX_get_error(context) == X509_V_ERR_UNABLE_TO_GET_CRL) return {};
  X509_CRL* const native = X509_STORE_CTX_get0_current_crl(context);
  try {
    return native == nullptr ? RefCertificateRevocationList()
                             : CertificateRevocationListFactory()(native, false);
  } catch (const Exception&) {
    return {};
  }
}

}  // namespace

Objection objectionOf(X509_STORE_CTX* context) {
  Objection objection;
  objection.code = X509_STORE_CTX_get_error(context);
  objection.depth = X509_STORE_CTX_get_error_depth(context);
  X509* current = X509_STORE_CTX_get_current_cert(context);
  if (current == nullptr) {
    const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
    if (objection.depth >= 0 && objection.depth < sk_X509_num(chain)) {
      current = sk_X509_value(chain, objection.depth);
    }
  }
  if (current != nullptr) objection.certificate = CertificateFactory()(current, false);
  objection.crl = crlOf(context);
  return objection;
}

}  // namespace Velantrix::Crypto::PKX509
