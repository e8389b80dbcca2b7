// The bits by which OpenSSL scores a candidate CRL, in its own values: crypto/x509/x509_local.h has
// them as CRL_SCORE_*, and no public header does.
#pragma once

namespace Velantrix::Crypto {

inline constexpr unsigned int kScoreAuthorityKeyId = 0x004;  ///< CRL_SCORE_AKID
inline constexpr unsigned int kScoreIssuerCert = 0x018;      ///< CRL_SCORE_ISSUER_CERT
inline constexpr unsigned int kScoreIssuerName = 0x020;      ///< CRL_SCORE_ISSUER_NAME
inline constexpr unsigned int kScoreScope = 0x080;           ///< CRL_SCORE_SCOPE

}  // namespace Velantrix::Crypto
