#include "foundation/openssl/SignatureInPieces.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/asn1t.h>
#include <openssl/objects.h>

#include <algorithm>

namespace Velantrix::Crypto {

namespace {

// RFC 4055, 3.1: a hash that is not named is SHA-1. Null for one that is not known.
const EVP_MD* hashOf(const X509_ALGOR* algorithm) {
  return algorithm == nullptr ? EVP_sha1() : EVP_get_digestbyobj(algorithm->algorithm);
}

// RFC 4055, 3.1: maskGenAlgorithm [1] DEFAULT mgf1SHA1. Null where it is nothing known.
const EVP_MD* maskHashOf(const X509_ALGOR* algorithm) {
  if (algorithm == nullptr) return hashOf(nullptr);
  if (OBJ_obj2nid(algorithm->algorithm) != NID_mgf1) return nullptr;
  const Owned<X509_ALGOR> hash(static_cast<X509_ALGOR*>(
      ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(X509_ALGOR), algorithm->parameter)));
  return hash == nullptr ? nullptr : hashOf(hash.get());
}

// What RFC 4055, 3.1, has in the parameters of the algorithm, for OpenSSL. A salt of another length than
// a number of octets is none, and there is one trailer only (RFC 8017, A.2.3).
bool beginPss(EVP_MD_CTX* context, const X509_ALGOR* algorithm, EVP_PKEY* key) {
  constexpr int kUsualSalt = 20;
  constexpr long kOnlyTrailer = 1;
  const Owned<RSA_PSS_PARAMS> parameters(static_cast<RSA_PSS_PARAMS*>(
      ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), algorithm->parameter)));
  if (parameters == nullptr) return false;
  const EVP_MD* const hash = hashOf(parameters->hashAlgorithm);
  const EVP_MD* const mask = maskHashOf(parameters->maskGenAlgorithm);
  if (hash == nullptr || mask == nullptr) return false;
  const ASN1_INTEGER* const trailer = parameters->trailerField;
  if (trailer != nullptr && ASN1_INTEGER_get(trailer) != kOnlyTrailer) return false;
  const ASN1_INTEGER* const salt = parameters->saltLength;
  // OpenSSL keeps it in an int as well.
  const int saltLength = salt == nullptr ? kUsualSalt : static_cast<int>(ASN1_INTEGER_get(salt));
  EVP_PKEY_CTX* settings = nullptr;
  return saltLength >= 0 && EVP_DigestVerifyInit(context, &settings, hash, nullptr, key) > 0 &&
         EVP_PKEY_CTX_set_rsa_padding(settings, RSA_PKCS1_PSS_PADDING) > 0 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(settings, saltLength) > 0 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(settings, mask) > 0;
}

enum class Way { kNone, kDigest, kWhole };

// In the order of ASN1_item_verify().
Way begin(EVP_MD_CTX* context, const X509_ALGOR* algorithm, EVP_PKEY* key) {
  int digest = NID_undef;
  int kind = NID_undef;
  if (OBJ_find_sigid_algs(OBJ_obj2nid(algorithm->algorithm), &digest, &kind) != 1) {
    return Way::kNone;
  }
  if (digest == NID_undef && kind == EVP_PKEY_RSA_PSS) {
    const bool isRsa = EVP_PKEY_is_a(key, "RSA") == 1 || EVP_PKEY_is_a(key, "RSA-PSS") == 1;
    return isRsa && beginPss(context, algorithm, key) ? Way::kDigest : Way::kNone;
  }
  if (EVP_PKEY_is_a(key, OBJ_nid2sn(kind)) != 1) return Way::kNone;
  const EVP_MD* const hash = digest == NID_undef ? nullptr : EVP_get_digestbynid(digest);
  if (digest != NID_undef && hash == nullptr) return Way::kNone;
  if (EVP_DigestVerifyInit(context, nullptr, hash, nullptr, key) <= 0) return Way::kNone;
  return hash == nullptr ? Way::kWhole : Way::kDigest;
}

// OpenSSL's decoder puts the number of unused bits there.
bool isOfWholeOctets(const ASN1_BIT_STRING* signature) {
  constexpr long kUnusedBits = 0x07;
  return ASN1_STRING_type(signature) != V_ASN1_BIT_STRING || (signature->flags & kUnusedBits) == 0;
}

}  // namespace

std::optional<bool> isSignedInPieces(const SignedOctets& whole, EVP_PKEY* key, bool (*goOn)()) {
  const ErrorScope errors;
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  if (context == nullptr || !isOfWholeOctets(whole.signature)) return false;
  const Way way = begin(context.get(), whole.algorithm, key);
  if (way == Way::kNone) return false;
  const unsigned char* const signature = ASN1_STRING_get0_data(whole.signature);
  const auto size = static_cast<std::size_t>(ASN1_STRING_length(whole.signature));
  if (way == Way::kWhole) {
    if (!goOn()) return std::nullopt;
    return EVP_DigestVerify(context.get(), signature, size, whole.octets, whole.length) == 1;
  }
  for (std::size_t done = 0; done < whole.length;) {
    if (!goOn()) return std::nullopt;
    const std::size_t piece = std::min(kSignaturePiece, whole.length - done);
    if (EVP_DigestVerifyUpdate(context.get(), whole.octets + done, piece) <= 0) return false;
    done += piece;
  }
  return EVP_DigestVerifyFinal(context.get(), signature, size) == 1;
}

}  // namespace Velantrix::Crypto
