#include "crl/StrangersKeys.h"

#include "foundation/base/Log.h"
#include "foundation/base/Shortfall.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

struct Use {
  // Whether another signature may be verified that no trust anchor is asked about, or none vouches for.
  bool admits(bool modest, const std::function<bool()>& vouchedFor) {
    if (modest && ++signatures <= StrangersKeys::kMaximumSignatures) return true;
    return vouchedFor() || (modest && ++strangers <= StrangersKeys::kMaximumSignatures);
  }

  std::size_t signatures = 0;
  std::size_t strangers = 0;
  bool told = false;
};

// One element of DER: moves `position` to its content and gives the length of that.
std::optional<long> enter(const unsigned char*& position, const unsigned char* end, int tag) {
  long length = 0;
  int found = 0;
  int kind = 0;
  const int result = ASN1_get_object(&position, &length, &found, &kind, end - position);
  if ((result & 0x80) != 0 || found != tag || kind != V_ASN1_UNIVERSAL) return std::nullopt;
  return length;
}

// RFC 8017, A.1.1: the modulus, then the exponent. OpenSSL's way to ask for it takes as long as a
// signature.
bool hasModestExponent(const X509* holder) {
  const unsigned char* position = nullptr;
  int size = 0;
  if (X509_PUBKEY_get0_param(nullptr, &position, &size, nullptr, X509_get_X509_PUBKEY(holder)) !=
      1) {
    return false;
  }
  const unsigned char* const end = position + size;
  if (!enter(position, end, V_ASN1_SEQUENCE).has_value()) return false;
  const std::optional<long> modulus = enter(position, end, V_ASN1_INTEGER);
  if (!modulus.has_value()) return false;
  position += *modulus;
  const std::optional<long> exponent = enter(position, end, V_ASN1_INTEGER);
  if (!exponent.has_value()) return false;
  constexpr long kOctets = StrangersKeys::kMaximumExponentBits / 8;
  return *exponent <= kOctets || (*exponent == kOctets + 1 && *position == 0);
}

}  // namespace

bool StrangersKeys::isModest(X509* holder) {
  const EVP_PKEY* const key = X509_get0_pubkey(holder);
  if (key == nullptr || EVP_PKEY_get_bits(key) > kMaximumBits) return false;
  const int kind = EVP_PKEY_get_base_id(key);
  return (kind != EVP_PKEY_RSA && kind != EVP_PKEY_RSA_PSS) || hasModestExponent(holder);
}

bool StrangersKeys::signedBy(const CertificateRevocationList& crl, const RefCertificate& holder,
                             const std::function<bool()>& vouchedFor) {
  const ErrorScope errors;
  EVP_PKEY* const key = X509_get0_pubkey(holder);
  if (key == nullptr) return false;
  if (const std::optional<bool> known = crl.rememberedSignature(key)) return *known;
  Use* const use = VerificationRun::kept<Use>();
  if (use == nullptr) return crl.isSignedBy(key);
  if (!use->admits(isModest(holder), vouchedFor)) {
    Shortfall::note();
    if (!std::exchange(use->told, true)) {
      log(kPriorityInfo,
          "Verifier: too many keys, or too large ones, of certificates that no trust anchor "
          "vouches for; no signature is verified with that of " +
              holder->subject().asString());
    }
    return false;
  }
  return crl.isSignedBy(key);
}

}  // namespace Velantrix::Crypto::PKX509
