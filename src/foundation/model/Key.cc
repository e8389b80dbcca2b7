#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>
#include <velantrix/Key.h>

namespace Velantrix::Crypto {

Key::Key(EVP_PKEY* key) : key_(Owned<EVP_PKEY>(key)) { PKX509_ASSERT(key_ != nullptr); }

}  // namespace Velantrix::Crypto
