// Short names for the verdicts that tests expect time and again.
#pragma once

#include <openssl/x509_vfy.h>

namespace Velantrix::Test {

inline constexpr int kRevoked = X509_V_ERR_CERT_REVOKED;
inline constexpr int kNoCRL = X509_V_ERR_UNABLE_TO_GET_CRL;

}  // namespace Velantrix::Test
