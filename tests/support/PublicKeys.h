// Public keys to which nobody has the private one: a stranger can put any numbers there.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <memory>
#include <stdexcept>

namespace Velantrix::Test {

/// An RSA key with a random odd modulus and the smallest odd exponent of that many bits.
inline std::shared_ptr<EVP_PKEY> publicRsaKey(int bits, int exponentBits) {
  using Crypto::Owned;
  const Owned<BIGNUM> modulus(BN_new());
  const Owned<BIGNUM> exponent(BN_new());
  const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(
      OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  if (BN_rand(modulus.get(), bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD) != 1 ||
      BN_set_bit(exponent.get(), exponentBits - 1) != 1 || BN_set_bit(exponent.get(), 0) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()) != 1) {
    throw std::runtime_error("no RSA numbers");
  }
  const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> parameters(
      OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
  if (EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
    throw std::runtime_error("no RSA key");
  }
  return {key, EVP_PKEY_free};
}

}  // namespace Velantrix::Test
