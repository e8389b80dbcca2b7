#include "foundation/GeneralNames.h"
#include "foundation/OpenSSLOwners.h"

#include <velantrix/Assert.h>
#include <velantrix/Exception.h>
#include <velantrix/GeneralName.h>

#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::shared_ptr<const GENERAL_NAME> copyGeneralName(const GENERAL_NAME* native) {
  PKX509_ASSERT(native != nullptr);
  const ErrorScope errors;
  Owned<GENERAL_NAME> copy(GENERAL_NAME_dup(native));
  if (copy == nullptr) {
    throw Exception("X509::GeneralName", Exception::kFailure, "GeneralName", __LINE__)
        .stringParameter("name cannot be copied");
  }
  return copy;
}

DistinguishedName directoryName(const GENERAL_NAME* name) {
  if (name->type != GEN_DIRNAME) return DistinguishedName();
  return DistinguishedName(name->d.directoryName);
}

Uri uniformResourceIdentifier(const GENERAL_NAME* name) {
  if (name->type != GEN_URI) return Uri();
  const ASN1_IA5STRING* text = name->d.uniformResourceIdentifier;
  const unsigned char* data = ASN1_STRING_get0_data(text);
  return Uri(std::string(data, data + ASN1_STRING_length(text)));
}

}  // namespace

GeneralName::GeneralName(const GENERAL_NAME* native)
    : native_(copyGeneralName(native)),
      dn_(directoryName(native_.get())),
      uri_(uniformResourceIdentifier(native_.get())) {}

int GeneralName::type() const noexcept { return native_->type; }

bool GeneralName::operator==(const GeneralName& other) const noexcept {
  const ErrorScope errors;
  // GENERAL_NAME_cmp takes non-const pointers but only reads.
  return GENERAL_NAME_cmp(const_cast<GENERAL_NAME*>(native()),
                          const_cast<GENERAL_NAME*>(other.native())) == 0;
}

RefGeneralName::RefGeneralName(const GENERAL_NAME* native) {
  if (native != nullptr) *this = RefGeneralName(new GeneralName(native));
}

std::list<RefGeneralName> generalNames(const GENERAL_NAMES* names) {
  std::list<RefGeneralName> copies;
  for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
    copies.emplace_back(sk_GENERAL_NAME_value(names, i));
  }
  return copies;
}

}  // namespace Velantrix::Crypto::PKX509
