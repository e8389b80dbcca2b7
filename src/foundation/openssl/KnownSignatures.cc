#include "foundation/openssl/KnownSignatures.h"

#include "foundation/base/Recent.h"
#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/evp.h>

#include <array>
#include <atomic>
#include <optional>

namespace Velantrix::Crypto {

namespace {

using Digest = std::array<unsigned char, 32>;

struct Signature {
  Digest certificate = {};
  Digest key = {};

  bool operator==(const Signature&) const = default;
};

// Only those that are right.
struct Right {};
using RightOnes = Recent<Signature, Right, 256>;

RightOnes& rightOnes() {
  static RightOnes& right = *new RightOnes;  // threads may verify at exit
  return right;
}

std::atomic<std::uint64_t> verified = 0;

const EVP_MD* sha256() {
  // Fetched once: OpenSSL's constant is looked for anew at each use.
  static const Owned<EVP_MD> digest(EVP_MD_fetch(nullptr, "SHA256", nullptr));
  return digest.get();
}

// None where OpenSSL cannot encode it, or has no SHA-256.
std::optional<Signature> signatureOf(const X509* certificate, const X509* holder) {
  const EVP_MD* const digest = sha256();
  Signature signature;
  if (digest == nullptr ||
      X509_digest(certificate, digest, signature.certificate.data(), nullptr) != 1) {
    return std::nullopt;
  }
  unsigned char* encoded = nullptr;
  const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(holder), &encoded);
  const OwnedMemory<unsigned char> owner(encoded);
  if (length <= 0 || EVP_Digest(encoded, static_cast<std::size_t>(length), signature.key.data(),
                                nullptr, digest, nullptr) != 1) {
    return std::nullopt;
  }
  return signature;
}

}  // namespace

bool isSignedByHolder(X509* certificate, const X509* holder) {
  const ErrorScope errors;
  EVP_PKEY* const key = X509_get0_pubkey(holder);
  if (key == nullptr) return false;
  const std::optional<Signature> signature = signatureOf(certificate, holder);
  if (signature && rightOnes().recall(*signature)) return true;
  const MemoryCheck memory;
  verified.fetch_add(1, std::memory_order_relaxed);
  const bool isSigned = X509_verify(certificate, key) == 1;
  if (!isSigned) memory.orThrow();
  if (isSigned && signature) rightOnes().remember(*signature, {});
  return isSigned;
}

std::uint64_t verifiedSignatures() noexcept { return verified.load(std::memory_order_relaxed); }

}  // namespace Velantrix::Crypto
