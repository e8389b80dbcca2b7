#include "revocation/SignatureStrength.h"

#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

constexpr std::array<int, 6> kBitsOfLevel = {0, 80, 112, 128, 192, 256};

// Nobody vouches for what is not known.
constexpr int kNoBits = -1;

// OpenSSL's numbers (X509_get_signature_info): half of the digest's length, less where collisions
// cost less.
int digestBits(int digest) {
  if (digest == NID_md5) return 39;
  if (digest == NID_sha1) return 63;
  const EVP_MD* const known = EVP_get_digestbynid(digest);
  return known == nullptr ? kNoBits : EVP_MD_get_size(known) * 4;
}

int typeOf(const X509_ALGOR* algorithm) {
  const ASN1_OBJECT* type = nullptr;
  X509_ALGOR_get0(&type, nullptr, nullptr, algorithm);
  return OBJ_obj2nid(type);
}

// The parameters, where they are a SEQUENCE that @p d2i can read.
template <class T>
Owned<T> parametersOf(const X509_ALGOR* algorithm, T* (*d2i)(T**, const unsigned char**, long)) {
  int type = V_ASN1_UNDEF;
  const void* value = nullptr;
  X509_ALGOR_get0(nullptr, &type, &value, algorithm);
  if (type != V_ASN1_SEQUENCE) return nullptr;
  const auto* const der = static_cast<const ASN1_STRING*>(value);
  return decodeWhole(d2i, ASN1_STRING_get0_data(der),
                     static_cast<std::size_t>(ASN1_STRING_length(der)));
}

// RFC 4055, 3.1: hashAlgorithm [0] DEFAULT sha1
int hashBits(const X509_ALGOR* hashAlgorithm) {
  return digestBits(hashAlgorithm == nullptr ? NID_sha1 : typeOf(hashAlgorithm));
}

// RFC 4055, 3.1: maskGenAlgorithm [1] DEFAULT mgf1SHA1
int maskBits(const X509_ALGOR* maskGenAlgorithm) {
  if (maskGenAlgorithm == nullptr) return digestBits(NID_sha1);
  if (typeOf(maskGenAlgorithm) != NID_mgf1) return kNoBits;
  const Owned<X509_ALGOR> hash = parametersOf(maskGenAlgorithm, d2i_X509_ALGOR);
  return hash == nullptr ? kNoBits : digestBits(typeOf(hash.get()));
}

int pssBits(const X509_ALGOR* algorithm) {
  const Owned<RSA_PSS_PARAMS> parameters = parametersOf(algorithm, d2i_RSA_PSS_PARAMS);
  if (parameters == nullptr) return kNoBits;
  return std::min(hashBits(parameters->hashAlgorithm), maskBits(parameters->maskGenAlgorithm));
}

int algorithmBits(const X509_ALGOR* algorithm) {
  const int type = typeOf(algorithm);
  if (type == NID_rsassaPss) return pssBits(algorithm);
  // They have no digest to choose (RFC 8032).
  if (type == NID_ED25519) return 128;
  if (type == NID_ED448) return 224;
  int digest = NID_undef;
  if (OBJ_find_sigid_algs(type, &digest, nullptr) != 1) return kNoBits;
  return digestBits(digest);
}

}  // namespace

bool reachesLevel(int level, const X509_ALGOR* algorithm, EVP_PKEY* key) {
  const int wanted =
      kBitsOfLevel[static_cast<std::size_t>(std::clamp(level, 0, int{kBitsOfLevel.size()} - 1))];
  if (wanted == 0) return true;
  if (algorithm == nullptr || key == nullptr) return false;
  const ErrorScope errors;
  return std::min(algorithmBits(algorithm), EVP_PKEY_get_security_bits(key)) >= wanted;
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
