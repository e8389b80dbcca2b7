// Decoding the extensions of certificates and CRLs.
//
// OpenSSL's X509_get_ext_d2i answers null for "absent", "there twice" and "broken" alike and lets
// octets after the value pass. Here absence is the only null.
#pragma once

#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/AuthorityKeyIdentifier.h>

#include <openssl/objects.h>

namespace Velantrix::Crypto::PKX509 {

/// The extension of type @p type, borrowed from @p extensions; null when there is none.
/// @param context what the exception names: the class whose operation asked
/// @throws Exception when there are two (RFC 5280, 4.2)
const X509_EXTENSION* onlyExtension(const STACK_OF(X509_EXTENSION) * extensions,
                                    const ASN1_OBJECT* type, const char* context);

[[noreturn]] void throwBrokenExtension(const X509_EXTENSION* extension, const char* context);

/// The decoded value of @p extension.
/// @throws Exception when it cannot be decoded to its last octet
template <class T>
Owned<T> decodeExtension(const X509_EXTENSION* extension,
                         T* (*d2i)(T**, const unsigned char**, long), const char* context) {
  const ErrorScope errors;
  // The getter takes a non-const pointer but only reads.
  const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
  Owned<T> decoded = decodeWhole(d2i, ASN1_STRING_get0_data(value),
                                 static_cast<std::size_t>(ASN1_STRING_length(value)));
  if (decoded == nullptr) throwBrokenExtension(extension, context);
  return decoded;
}

/// The decoded value of the extension of type @p nid; null when there is none.
/// @throws Exception when there are two or the value cannot be decoded to its last octet
template <class T>
Owned<T> decodeOnlyExtension(const STACK_OF(X509_EXTENSION) * extensions, int nid,
                             T* (*d2i)(T**, const unsigned char**, long), const char* context) {
  const X509_EXTENSION* extension = onlyExtension(extensions, OBJ_nid2obj(nid), context);
  if (extension == nullptr) return nullptr;
  return decodeExtension(extension, d2i, context);
}

/// The authority key identifier among @p extensions; an empty handle when there is none.
/// @throws Exception as above
RefAuthorityKeyIdentifier decodeAuthorityKeyIdentifier(const STACK_OF(X509_EXTENSION) * extensions,
                                                       const char* context);

}  // namespace Velantrix::Crypto::PKX509
