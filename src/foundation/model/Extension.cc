#include "foundation/base/Fail.h"
#include "foundation/openssl/ObjectIdentifierText.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/Assert.h>
#include <velantrix/Extension.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::shared_ptr<const X509_EXTENSION> copyExtension(const X509_EXTENSION* native) {
  PKX509_ASSERT(native != nullptr);
  const ErrorScope errors;
  Owned<X509_EXTENSION> copy(X509_EXTENSION_dup(native));
  if (copy == nullptr) {
    fail({"X509::Extension", "Extension"}, "extension cannot be copied");
  }
  return copy;
}

}  // namespace

Extension::Extension(const X509_EXTENSION* native) : native_(copyExtension(native)) {}

std::string Extension::oid() const {
  // The getter takes a non-const pointer but only reads.
  return objectIdentifierText(X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(native())));
}

bool Extension::critical() const noexcept { return X509_EXTENSION_get_critical(native()) > 0; }

RefExtension::RefExtension(const X509_EXTENSION* native) {
  if (native != nullptr) *this = RefExtension(new Extension(native));
}

}  // namespace Velantrix::Crypto::PKX509
