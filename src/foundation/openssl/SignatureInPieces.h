// Whether a key has signed octets, for objects so large that one wants to be able to stop in between.
//
//   const SignedOctets whole{der, length, algorithm, signature};
//   const std::optional<bool> isSigned = isSignedInPieces(whole, key, VerificationRun::admitStep);
//   if (!isSigned) ...  // it was stopped, and nothing is known
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <optional>

namespace Velantrix::Crypto {

/// What somebody has signed, and how; all of it is borrowed.
struct SignedOctets {
  const unsigned char* octets;  ///< the element that was signed, with its header
  std::size_t length;
  const X509_ALGOR* algorithm;       ///< the one beside the signature
  const ASN1_BIT_STRING* signature;  ///< of whole octets, or it is none
};

inline constexpr std::size_t kSignaturePiece = std::size_t{1024} * 1024;

/// What ASN1_item_verify() says of the same, true for its 1. Where the algorithm begins with a digest
/// that takes pieces of `kSignaturePiece`; where it does not (RFC 8032), all is one piece.
/// @param key   borrowed, not null
/// @param goOn  asked before each piece
/// @return none when @p goOn has said no
std::optional<bool> isSignedInPieces(const SignedOctets& whole, EVP_PKEY* key, bool (*goOn)());

}  // namespace Velantrix::Crypto
