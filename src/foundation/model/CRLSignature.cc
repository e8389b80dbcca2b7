#include "foundation/model/CRLSignature.h"

#include "foundation/crlindex/CompactCRL.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/SignatureInPieces.h"
#include "foundation/run/VerificationRun.h"

#include <openssl/x509.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

// RFC 5280, 5.1: the TBSCertList, with its header. Nothing where the encoding does not say how long it is,
// which OpenSSL reads too.
std::optional<SignedOctets> signedPartOf(const unsigned char* der, std::size_t length) {
  const auto list = derHeader(der, der + length);
  if (!list || !list->isWholeSequence()) return std::nullopt;
  const auto part = derHeader(list->content, list->next);
  if (!part || !part->isWholeSequence()) return std::nullopt;
  return SignedOctets{list->content, static_cast<std::size_t>(part->next - list->content), nullptr,
                      nullptr};
}

}  // namespace

std::optional<bool> isCRLSignedBy(X509_CRL* crl, EVP_PKEY* key) {
  const ErrorScope errors;
  const auto inOneCall = [&] { return X509_CRL_verify(crl, key) == 1; };
  // OpenSSL keeps the octets that it has read, so that neither encodes anything.
  const int size = i2d_X509_CRL(crl, nullptr);
  if (size <= 0 || static_cast<std::size_t>(size) <= kSignaturePiece) return inOneCall();
  unsigned char* der = nullptr;
  const int length = i2d_X509_CRL(crl, &der);
  const OwnedMemory<unsigned char> owner(der);
  if (length <= 0) return false;  // as X509_CRL_verify(), which copies as much
  std::optional<SignedOctets> whole = signedPartOf(der, static_cast<std::size_t>(length));
  if (!whole) return inOneCall();
  X509_CRL_get0_signature(crl, &whole->signature, &whole->algorithm);
  return isSignedInPieces(*whole, key, VerificationRun::admitStep);
}

std::optional<bool> isCRLSignedBy(const CompactCRL& crl, EVP_PKEY* key) {
  const std::string_view octets = crl.toBeSigned();
  SignedOctets whole{Crypto::octets(octets), octets.size(), nullptr, nullptr};
  X509_CRL_get0_signature(crl.head(), &whole.signature, &whole.algorithm);
  // A short one is one step, as above.
  const bool isShort = crl.octets().size() <= kSignaturePiece;
  return isSignedInPieces(whole, key, isShort ? [] { return true; } : VerificationRun::admitStep);
}

}  // namespace Velantrix::Crypto::PKX509
