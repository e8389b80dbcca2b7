#include "foundation/openssl/ObjectIdentifierText.h"
#include "foundation/openssl/References.h"

#include <velantrix/Extension.h>

namespace Velantrix::Crypto::PKX509 {

Extension::Extension(const X509_EXTENSION* native)
    : native_(newCopy(X509_EXTENSION_dup, native, {"X509::Extension", "Extension"},
                      "extension cannot be copied")) {}

std::string Extension::oid() const {
  // The getter takes a non-const pointer but only reads.
  return objectIdentifierText(X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(native())));
}

bool Extension::critical() const noexcept { return X509_EXTENSION_get_critical(native()) > 0; }

RefExtension::RefExtension(const X509_EXTENSION* native) {
  if (native != nullptr) *this = RefExtension(new Extension(native));
}

}  // namespace Velantrix::Crypto::PKX509
