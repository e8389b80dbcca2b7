#include "foundation/base/Fail.h"
#include "foundation/model/GeneralNames.h"
#include "foundation/model/ReasonFlags.h"
#include "foundation/openssl/BitString.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/CRLDistributionPoint.h>

#include <utility>

namespace Velantrix::Crypto::PKX509 {

static_assert(kAllReasons == CRLDP_ALL_REASONS);

namespace {

using RelativeName = STACK_OF(X509_NAME_ENTRY);

// A relative name as a name of one RDN, which prints and compares as names do.
DistinguishedName relativeDistinguishedName(const RelativeName* entries) {
  const ErrorScope errors;
  const Owned<X509_NAME> name(X509_NAME_new());
  bool complete = name != nullptr;
  for (int i = 0; complete && i < sk_X509_NAME_ENTRY_num(entries); ++i) {
    // A set of -1 joins the RDN before, 0 starts one.
    complete = X509_NAME_add_entry(name.get(), sk_X509_NAME_ENTRY_value(entries, i), -1,
                                   i == 0 ? 0 : -1) == 1;
  }
  if (!complete) {
    fail({"X509::CRLDistributionPointName", "CRLDistributionPoint"},
         "no memory for a relative name");
  }
  return DistinguishedName(name.get());
}

// Whether OpenSSL can compare a value, which is done in UTF-8. Of the other types of text every
// octet is a character, and what is no text is compared as it is.
bool isComparable(const ASN1_STRING* value) {
  const int type = ASN1_STRING_type(value);
  if (type != V_ASN1_UTF8STRING && type != V_ASN1_BMPSTRING && type != V_ASN1_UNIVERSALSTRING) {
    return true;
  }
  unsigned char* converted = nullptr;
  const int length = ASN1_STRING_to_UTF8(&converted, value);
  const OwnedMemory<unsigned char> owner(converted);
  return length >= 0;
}

// Throws for a relative name that is no name. Most are seen to be one without making it: a
// certificate can have a hundred thousand points.
void requireName(const RelativeName* entries) {
  constexpr int kFew = 16;
  constexpr int kShort = 1024;
  const ErrorScope errors;
  bool plain = sk_X509_NAME_ENTRY_num(entries) <= kFew;
  for (int i = 0; plain && i < sk_X509_NAME_ENTRY_num(entries); ++i) {
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(sk_X509_NAME_ENTRY_value(entries, i));
    plain = ASN1_STRING_length(value) <= kShort && isComparable(value);
  }
  if (!plain) static_cast<void>(relativeDistinguishedName(entries));
}

template <class T>
std::shared_ptr<const T> copyOf(const ASN1_ITEM* item, const T* native, const char* context) {
  const ErrorScope errors;
  Owned<T> copy(static_cast<T*>(ASN1_item_dup(item, notNull(native))));
  if (copy == nullptr) fail({context, "CRLDistributionPoint"}, "name cannot be copied");
  return copy;
}

// What OpenSSL makes new is of neither type and holds nothing.
bool hasType(const DIST_POINT_NAME& name) {
  return name.type == CRLDistributionPointName::kFullName ||
         name.type == CRLDistributionPointName::kRelativeName;
}

std::shared_ptr<const DIST_POINT_NAME> copyOf(const DIST_POINT_NAME* native) {
  if (!hasType(*notNull(native))) return nullptr;
  return copyOf(ASN1_ITEM_rptr(DIST_POINT_NAME), native, "X509::CRLDistributionPointName");
}

// Null unless the name is a relative one.
const RelativeName* relativeNameIn(const DIST_POINT_NAME* name) {
  if (name == nullptr || name->type != CRLDistributionPointName::kRelativeName) return nullptr;
  return name->name.relativename;
}

}  // namespace

unsigned int reasonFlags(const ASN1_BIT_STRING* flags) noexcept {
  if (flags == nullptr) return kAllReasons;
  return namedBits(flags) & kAllReasons;
}

CRLDistributionPointName::CRLDistributionPointName(const DIST_POINT_NAME* native)
    : CRLDistributionPointName(copyOf(native)) {}

CRLDistributionPointName::CRLDistributionPointName(std::shared_ptr<const DIST_POINT_NAME> native)
    : native_(std::move(native)) {
  const RelativeName* relative = relativeNameIn(native_.get());
  if (relative == nullptr) return;
  type_ = kRelativeName;
  relativeName_ = relativeDistinguishedName(relative);
}

std::shared_ptr<const GENERAL_NAMES> CRLDistributionPointName::nativeFullName() const {
  if (native_ == nullptr || native_->type != kFullName) return nullptr;
  return {native_, native_->name.fullname};
}

std::list<RefGeneralName> CRLDistributionPointName::fullName() const {
  return generalNames(nativeFullName());
}

bool CRLDistributionPointName::operator==(const CRLDistributionPointName& other) const noexcept {
  if (type_ != other.type_) return false;
  if (type_ == kRelativeName) return relativeName_ == other.relativeName_;
  return haveOneInCommon(nativeFullName().get(), other.nativeFullName().get());
}

bool CRLDistributionPointName::operator==(const DistinguishedName& name) const noexcept {
  return holdDirectoryName(nativeFullName().get(), name);
}

RefCRLDistributionPointName::RefCRLDistributionPointName(const DIST_POINT_NAME* native) {
  if (native != nullptr) {
    *this = RefCRLDistributionPointName(new CRLDistributionPointName(native));
  }
}

CRLDistributionPoint::CRLDistributionPoint(const DIST_POINT* native)
    : CRLDistributionPoint(
          copyOf(ASN1_ITEM_rptr(DIST_POINT), native, "X509::CRLDistributionPoint")) {}

CRLDistributionPoint::CRLDistributionPoint(std::shared_ptr<const DIST_POINT> native)
    : reasons_(reasonFlags(notNull(native.get())->reasons)), native_(std::move(native)) {
  const RelativeName* relative = relativeNameIn(native_->distpoint);
  if (relative != nullptr) requireName(relative);
}

RefCRLDistributionPointName CRLDistributionPoint::distributionPointName() const {
  if (native_->distpoint == nullptr) return RefCRLDistributionPointName();
  return RefCRLDistributionPointName(new CRLDistributionPointName(
      std::shared_ptr<const DIST_POINT_NAME>(native_, native_->distpoint)));
}

std::shared_ptr<const GENERAL_NAMES> CRLDistributionPoint::nativeIssuers() const {
  if (native_->CRLissuer == nullptr) return nullptr;
  return {native_, native_->CRLissuer};
}

std::list<RefGeneralName> CRLDistributionPoint::issuers() const {
  return generalNames(nativeIssuers());
}

RefCRLDistributionPoint::RefCRLDistributionPoint(const DIST_POINT* native) {
  if (native != nullptr) *this = RefCRLDistributionPoint(new CRLDistributionPoint(native));
}

}  // namespace Velantrix::Crypto::PKX509
