#include "foundation/model/ExtensionDecoder.h"

#include "foundation/base/Fail.h"
#include "foundation/openssl/ObjectIdentifierText.h"

#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::string describe(const ASN1_OBJECT* type) {
  const int nid = OBJ_obj2nid(type);
  return nid == NID_undef ? objectIdentifierText(type) : OBJ_nid2ln(nid);
}

}  // namespace

const X509_EXTENSION* onlyExtension(const STACK_OF(X509_EXTENSION) * extensions,
                                    const ASN1_OBJECT* type, const char* context) {
  const int first = X509v3_get_ext_by_OBJ(extensions, type, -1);
  if (first < 0) return nullptr;
  if (X509v3_get_ext_by_OBJ(extensions, type, first) >= 0) {
    fail({context, "ExtensionDecoder"}, "extension stands twice: " + describe(type));
  }
  return X509v3_get_ext(extensions, first);
}

void throwBrokenExtension(const X509_EXTENSION* extension, const char* context) {
  // The getter takes a non-const pointer but only reads.
  const ASN1_OBJECT* type = X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension));
  fail({context, "ExtensionDecoder"}, "extension cannot be decoded: " + describe(type));
}

RefAuthorityKeyIdentifier decodeAuthorityKeyIdentifier(const STACK_OF(X509_EXTENSION) * extensions,
                                                       const char* context) {
  Owned<AUTHORITY_KEYID> decoded =
      decodeOnlyExtension(extensions, NID_authority_key_identifier, d2i_AUTHORITY_KEYID, context);
  if (decoded == nullptr) return RefAuthorityKeyIdentifier();
  return RefAuthorityKeyIdentifier(new AuthorityKeyIdentifier(decoded.release()));
}

}  // namespace Velantrix::Crypto::PKX509
