#include "crl/StrangersKeys.h"

#include "foundation/base/Log.h"
#include "foundation/base/Shortfall.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

struct Use {
  std::size_t signatures = 0;
  bool told = false;
};

bool isModest(const EVP_PKEY* key) {
  if (EVP_PKEY_get_bits(key) > StrangersKeys::kMaximumBits) return false;
  BIGNUM* exponent = nullptr;
  // Other keys than those of RSA have none.
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent) != 1) return true;
  const Owned<BIGNUM> owner(exponent);
  return BN_num_bits(exponent) <= StrangersKeys::kMaximumExponentBits;
}

}  // namespace

bool StrangersKeys::signedBy(const CertificateRevocationList& crl, const RefCertificate& holder,
                             bool vouchedFor) {
  const ErrorScope errors;
  EVP_PKEY* const key = X509_get0_pubkey(holder);
  if (key == nullptr) return false;
  Use* const use = vouchedFor ? nullptr : VerificationRun::kept<Use>();
  if (use == nullptr) return crl.isSignedBy(key);
  if (use->signatures >= kMaximumSignatures || !isModest(key)) {
    Shortfall::note();
    if (!std::exchange(use->told, true)) {
      log(kPriorityInfo,
          "Verifier: too many keys, or too large ones, of certificates that no trust anchor "
          "vouches "
          "for; no signature is verified with that of " +
              holder->subject().asString());
    }
    return false;
  }
  const std::size_t before = crl.signatureChecks();
  const bool result = crl.isSignedBy(key);
  if (crl.signatureChecks() != before) ++use->signatures;
  return result;
}

}  // namespace Velantrix::Crypto::PKX509
