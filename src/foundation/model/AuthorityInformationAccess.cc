#include "foundation/base/Fail.h"
#include "foundation/model/ExtensionDecoder.h"

#include <velantrix/AuthorityInformationAccess.h>

#include <memory>
#include <optional>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::AuthorityInformationAccess", "AuthorityInformationAccess"};

void appendOCSP(std::string& out, const ACCESS_DESCRIPTION* description) {
  if (OBJ_obj2nid(description->method) != NID_ad_OCSP) return;
  unsigned char* der = nullptr;
  const int length = i2d_GENERAL_NAME(description->location, &der);
  const OwnedMemory<unsigned char> owner(der);
  if (length < 0) fail(kHere, "name cannot be copied");
  out.append(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
}

// Description by description: together they would take twenty times their encoding.
std::string ocspLocations(const X509_EXTENSION* extension) {
  // The getter takes a non-const pointer but only reads.
  const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
  const unsigned char* der = ASN1_STRING_get0_data(value);
  const unsigned char* const end = der + ASN1_STRING_length(value);
  const ErrorScope errors;
  std::string found;
  const std::optional<DerHeader> all = derHeader(der, end);
  if (all && all->isWholeSequence() && all->next == end) {
    for (const unsigned char* position = all->content; position != end;) {
      const Owned<ACCESS_DESCRIPTION> description =
          decodeNext(d2i_ACCESS_DESCRIPTION, position, end);
      if (description == nullptr) throwBrokenExtension(extension, kHere.context);
      appendOCSP(found, description.get());
    }
    return found;
  }
  // Of indefinite length, or broken: OpenSSL knows.
  const Owned<AUTHORITY_INFO_ACCESS> descriptions =
      decodeExtension(extension, d2i_AUTHORITY_INFO_ACCESS, kHere.context);
  for (int i = 0; i < sk_ACCESS_DESCRIPTION_num(descriptions.get()); ++i) {
    appendOCSP(found, sk_ACCESS_DESCRIPTION_value(descriptions.get(), i));
  }
  return found;
}

}  // namespace

AuthorityInformationAccess::AuthorityInformationAccess(const Extension& extension) {
  // The getter takes a non-const pointer but only reads.
  const ASN1_OBJECT* type =
      X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension.native()));
  if (OBJ_obj2nid(type) != NID_info_access) {
    fail(kHere, "extension of another type: " + extension.oid());
  }
  ocsp_ = ocspLocations(extension.native());
}

RefGeneralName AuthorityInformationAccess::nextOCSPGeneralName(std::size_t& position) const {
  if (position >= ocsp_.size()) return RefGeneralName();
  const ErrorScope errors;
  const unsigned char* next = octets(ocsp_) + position;
  const std::shared_ptr<const GENERAL_NAME> name =
      decodeNext(d2i_GENERAL_NAME, next, octets(ocsp_) + ocsp_.size());
  if (name == nullptr) fail(kHere, "name cannot be copied");
  position = static_cast<std::size_t>(next - octets(ocsp_));
  return RefGeneralName(new GeneralName(name));
}

std::list<RefGeneralName> AuthorityInformationAccess::ocspGeneralNames() const {
  std::list<RefGeneralName> names;
  for (std::size_t position = 0; position < ocsp_.size();) {
    names.push_back(nextOCSPGeneralName(position));
  }
  return names;
}

RefAuthorityInformationAccess::RefAuthorityInformationAccess(const RefExtension& extension) {
  if (extension.get() != nullptr) {
    *this = RefAuthorityInformationAccess(new AuthorityInformationAccess(*extension.get()));
  }
}

}  // namespace Velantrix::Crypto::PKX509
