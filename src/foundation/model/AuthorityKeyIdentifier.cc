#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>
#include <velantrix/AuthorityKeyIdentifier.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

AUTHORITY_KEYID* notNull(AUTHORITY_KEYID* native) {
  PKX509_ASSERT(native != nullptr);
  return native;
}

}  // namespace

AuthorityKeyIdentifier::AuthorityKeyIdentifier(AUTHORITY_KEYID* native)
    : native_(Owned<AUTHORITY_KEYID>(notNull(native))), keyId_(native->keyid) {}

}  // namespace Velantrix::Crypto::PKX509
