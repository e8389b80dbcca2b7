#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/AuthorityKeyIdentifier.h>

namespace Velantrix::Crypto::PKX509 {

AuthorityKeyIdentifier::AuthorityKeyIdentifier(AUTHORITY_KEYID* native)
    : native_(Owned<AUTHORITY_KEYID>(notNull(native))), keyId_(native->keyid) {}

}  // namespace Velantrix::Crypto::PKX509
