// Owners of OpenSSL objects.
//
// Every pointer that the library owns is wrapped at the call that makes it and leaves its owner
// only through release(), straight into a function that takes ownership. What OpenSSL calls get0 is
// borrowed and stays a plain pointer.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace Velantrix::Crypto {

template <class T>
struct Free;

// NOLINTBEGIN(bugprone-macro-parentheses): a type in parentheses is none.
#define PKX509_FREE_WITH(Type, function)                               \
  template <>                                                          \
  struct Free<Type> {                                                  \
    void operator()(Type* object) const noexcept { function(object); } \
  }
// NOLINTEND(bugprone-macro-parentheses)

PKX509_FREE_WITH(ASN1_BIT_STRING, ASN1_STRING_free);  // all ASN1_STRING types are this one type
PKX509_FREE_WITH(ASN1_OBJECT, ASN1_OBJECT_free);
PKX509_FREE_WITH(ASN1_TYPE, ASN1_TYPE_free);
PKX509_FREE_WITH(ACCESS_DESCRIPTION, ACCESS_DESCRIPTION_free);
PKX509_FREE_WITH(AUTHORITY_INFO_ACCESS, AUTHORITY_INFO_ACCESS_free);
PKX509_FREE_WITH(AUTHORITY_KEYID, AUTHORITY_KEYID_free);
PKX509_FREE_WITH(BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free);
PKX509_FREE_WITH(BIGNUM, BN_free);
PKX509_FREE_WITH(BIO, BIO_free_all);
PKX509_FREE_WITH(CERTIFICATEPOLICIES, CERTIFICATEPOLICIES_free);
PKX509_FREE_WITH(CRL_DIST_POINTS, CRL_DIST_POINTS_free);
PKX509_FREE_WITH(DIST_POINT, DIST_POINT_free);
PKX509_FREE_WITH(DIST_POINT_NAME, DIST_POINT_NAME_free);
PKX509_FREE_WITH(EVP_MD, EVP_MD_free);
PKX509_FREE_WITH(EVP_MD_CTX, EVP_MD_CTX_free);
PKX509_FREE_WITH(EVP_PKEY, EVP_PKEY_free);
PKX509_FREE_WITH(EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free);
PKX509_FREE_WITH(GENERAL_NAME, GENERAL_NAME_free);
PKX509_FREE_WITH(GENERAL_NAMES, GENERAL_NAMES_free);
PKX509_FREE_WITH(ISSUING_DIST_POINT, ISSUING_DIST_POINT_free);
PKX509_FREE_WITH(NAME_CONSTRAINTS, NAME_CONSTRAINTS_free);
PKX509_FREE_WITH(OCSP_BASICRESP, OCSP_BASICRESP_free);
PKX509_FREE_WITH(OCSP_CERTID, OCSP_CERTID_free);
PKX509_FREE_WITH(OCSP_REQUEST, OCSP_REQUEST_free);
PKX509_FREE_WITH(OCSP_RESPONSE, OCSP_RESPONSE_free);
PKX509_FREE_WITH(RSA_PSS_PARAMS, RSA_PSS_PARAMS_free);
PKX509_FREE_WITH(X509, X509_free);
PKX509_FREE_WITH(X509_ALGOR, X509_ALGOR_free);
PKX509_FREE_WITH(X509_ATTRIBUTE, X509_ATTRIBUTE_free);
PKX509_FREE_WITH(X509_CRL, X509_CRL_free);
PKX509_FREE_WITH(X509_EXTENSION, X509_EXTENSION_free);
PKX509_FREE_WITH(X509_LOOKUP_METHOD, X509_LOOKUP_meth_free);
PKX509_FREE_WITH(X509_NAME, X509_NAME_free);
PKX509_FREE_WITH(X509_OBJECT, X509_OBJECT_free);
PKX509_FREE_WITH(X509_REVOKED, X509_REVOKED_free);
PKX509_FREE_WITH(X509_STORE, X509_STORE_free);
PKX509_FREE_WITH(X509_STORE_CTX, X509_STORE_CTX_free);
PKX509_FREE_WITH(X509_VERIFY_PARAM, X509_VERIFY_PARAM_free);

#undef PKX509_FREE_WITH

/// A stack of certificates that owns a reference to each.
template <>
struct Free<STACK_OF(X509)> {
  void operator()(STACK_OF(X509) * stack) const noexcept { sk_X509_pop_free(stack, X509_free); }
};

/// A stack of strings, as X509_get1_email hands it out, that owns each of them.
template <>
struct Free<STACK_OF(OPENSSL_STRING)> {
  void operator()(STACK_OF(OPENSSL_STRING) * stack) const noexcept { X509_email_free(stack); }
};

/// Memory that OpenSSL allocated (i2d functions, BN_bn2hex, ...).
struct FreeMemory {
  void operator()(void* memory) const noexcept { OPENSSL_free(memory); }
};

template <class T>
using Owned = std::unique_ptr<T, Free<T>>;
template <class T>
using OwnedMemory = std::unique_ptr<T, FreeMemory>;

static_assert(sizeof(Owned<X509>) == sizeof(X509*));

/// Keeps what OpenSSL calls queue as errors inside this scope from being blamed on the next caller.
class ErrorScope {
 public:
  ErrorScope() noexcept { ERR_set_mark(); }
  ~ErrorScope() { ERR_pop_to_mark(); }
  ErrorScope(const ErrorScope&) = delete;
  ErrorScope& operator=(const ErrorScope&) = delete;
};

}  // namespace Velantrix::Crypto
