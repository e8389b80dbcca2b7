#include "foundation/base/Fail.h"
#include "foundation/model/ExtensionDecoder.h"

#include <velantrix/AuthorityInformationAccess.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr const char* kContext = "X509::AuthorityInformationAccess";
constexpr Origin kHere{kContext, "AuthorityInformationAccess"};

}  // namespace

AuthorityInformationAccess::AuthorityInformationAccess(const Extension& extension) {
  // The getter takes a non-const pointer but only reads.
  const ASN1_OBJECT* type =
      X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension.native()));
  if (OBJ_obj2nid(type) != NID_info_access) {
    fail(kHere, "extension of another type: " + extension.oid());
  }
  const Owned<AUTHORITY_INFO_ACCESS> descriptions =
      decodeExtension(extension.native(), d2i_AUTHORITY_INFO_ACCESS, kContext);
  for (int i = 0; i < sk_ACCESS_DESCRIPTION_num(descriptions.get()); ++i) {
    const ACCESS_DESCRIPTION* description = sk_ACCESS_DESCRIPTION_value(descriptions.get(), i);
    if (OBJ_obj2nid(description->method) == NID_ad_OCSP) ocsp_.emplace_back(description->location);
  }
}

RefAuthorityInformationAccess::RefAuthorityInformationAccess(const RefExtension& extension) {
  if (extension.get() != nullptr) {
    *this = RefAuthorityInformationAccess(new AuthorityInformationAccess(*extension.get()));
  }
}

}  // namespace Velantrix::Crypto::PKX509
