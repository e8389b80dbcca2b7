#include "foundation/base/Fail.h"
#include "foundation/model/GeneralNames.h"
#include "foundation/model/ReasonFlags.h"
#include "foundation/openssl/BitString.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/CRLDistributionPoint.h>

#include <algorithm>

namespace Velantrix::Crypto::PKX509 {

static_assert(kAllReasons == CRLDP_ALL_REASONS);

namespace {

// A relative name as a name of one RDN, which prints and compares as names do.
DistinguishedName relativeDistinguishedName(const STACK_OF(X509_NAME_ENTRY) * entries) {
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

}  // namespace

unsigned int reasonFlags(const ASN1_BIT_STRING* flags) noexcept {
  if (flags == nullptr) return kAllReasons;
  return namedBits(flags) & kAllReasons;
}

CRLDistributionPointName::CRLDistributionPointName(const DIST_POINT_NAME* native)
    : type_(notNull(native)->type == kRelativeName ? kRelativeName : kFullName) {
  if (type_ == kFullName) {
    fullName_ = generalNames(native->name.fullname);
  } else {
    relativeName_ = relativeDistinguishedName(native->name.relativename);
  }
}

bool CRLDistributionPointName::operator==(const CRLDistributionPointName& other) const noexcept {
  if (type_ != other.type_) return false;
  if (type_ == kRelativeName) return relativeName_ == other.relativeName_;
  return haveOneInCommon(fullName_, other.fullName_);
}

bool CRLDistributionPointName::operator==(const DistinguishedName& name) const noexcept {
  return std::any_of(fullName_.begin(), fullName_.end(), [&name](const RefGeneralName& mine) {
    return mine.get()->type() == GEN_DIRNAME && mine.get()->dn() == name;
  });
}

RefCRLDistributionPointName::RefCRLDistributionPointName(const DIST_POINT_NAME* native) {
  if (native != nullptr) {
    *this = RefCRLDistributionPointName(new CRLDistributionPointName(native));
  }
}

CRLDistributionPoint::CRLDistributionPoint(const DIST_POINT* native)
    : name_(notNull(native)->distpoint),
      issuers_(generalNames(native->CRLissuer)),
      reasons_(reasonFlags(native->reasons)) {}

RefCRLDistributionPoint::RefCRLDistributionPoint(const DIST_POINT* native) {
  if (native != nullptr) *this = RefCRLDistributionPoint(new CRLDistributionPoint(native));
}

}  // namespace Velantrix::Crypto::PKX509
