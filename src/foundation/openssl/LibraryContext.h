// Which of OpenSSL's library contexts a thread works in.
#pragma once

#include <openssl/crypto.h>

namespace Velantrix::Crypto {

/// Whether it is the one that all threads have which were not given another. Keys belong to the context in
/// which they were decoded, with its providers and properties.
inline bool isGlobalLibraryContext() noexcept {
  return OSSL_LIB_CTX_set0_default(nullptr) == OSSL_LIB_CTX_get0_global_default();  // sets nothing
}

}  // namespace Velantrix::Crypto
