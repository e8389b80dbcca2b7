#include "foundation/base/Fail.h"
#include "foundation/base/Hex.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/ObjectIdentifierText.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"
#include "foundation/openssl/TimeSeconds.h"

#include <velantrix/ASN1.h>
#include <velantrix/Assert.h>

#include <openssl/asn1.h>
#include <openssl/objects.h>

#include <optional>
#include <utility>

namespace Velantrix::Crypto::ASN1 {

namespace {

std::shared_ptr<const ASN1_INTEGER> copyInteger(const ASN1_INTEGER* native) {
  if (native == nullptr) return nullptr;
  return newCopy(ASN1_INTEGER_dup, native, {"ASN1::Integer", "ASN1"}, "no memory for a copy");
}

std::size_t lengthOf(const ASN1_STRING* string) {
  return static_cast<std::size_t>(ASN1_STRING_length(string));
}

long timeIn(const ASN1_STRING* native) {
  PKX509_ASSERT(native != nullptr);
  if (const auto seconds = secondsOf(native)) return *seconds;
  fail({"ASN1::GeneralizedTime", "ASN1"}, "not a time");
}

ASN1_OBJECT* makeObject(const std::string& dotted) {
  const std::optional<std::string> content = objectIdentifierContent(dotted);
  if (content) {
    const ErrorScope errors;
    std::string der;
    appendDer(der, V_ASN1_OBJECT, false, *content);
    const unsigned char* position = octets(der);
    ASN1_OBJECT* object = d2i_ASN1_OBJECT(nullptr, &position, static_cast<long>(der.size()));
    if (object != nullptr) return object;
  }
  fail({"ASN1::ObjectIdentifier", "ASN1"}, "not a dotted object identifier: " + dotted);
}

}  // namespace

Integer::Integer(const asn1_string_st* native) : native_(copyInteger(native)) {}

Integer::Integer(std::shared_ptr<const ASN1_INTEGER> native) noexcept
    : native_(std::move(native)) {}

bool Integer::operator==(const Integer& other) const noexcept {
  if (isNull() || other.isNull()) return isNull() == other.isNull();
  return ASN1_INTEGER_cmp(native(), other.native()) == 0;
}

bool Integer::operator<=(const Integer& other) const noexcept {
  if (isNull() || other.isNull()) return false;
  return ASN1_INTEGER_cmp(native(), other.native()) <= 0;
}

std::string Integer::asString() const {
  if (isNull()) {
    fail({"ASN1::Integer", "ASN1"}, "absent integer");
  }
  const std::string sign = (ASN1_STRING_type(native()) & V_ASN1_NEG) != 0 ? "-" : "";
  if (lengthOf(native()) == 0) return sign + "00";
  return sign + hexText(ASN1_STRING_get0_data(native()), lengthOf(native()));
}

std::ostream& operator<<(std::ostream& out, const Integer& value) {
  const std::string text = value.asString();
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

OctetString::OctetString(const asn1_string_st* native) {
  PKX509_ASSERT(native != nullptr);
  const unsigned char* data = ASN1_STRING_get0_data(native);
  if (data != nullptr) content_.assign(data, data + lengthOf(native));
}

std::string OctetString::asString() const { return hexText(content_.data(), content_.size(), ':'); }

RefOctetString::RefOctetString(const asn1_string_st* native) {
  if (native != nullptr) *this = RefOctetString(new OctetString(native));
}

bool RefOctetString::operator==(const RefOctetString& other) const noexcept {
  const OctetString* mine = get();
  const OctetString* theirs = other.get();
  if (mine == nullptr || theirs == nullptr) return mine == theirs;
  return mine->content() == theirs->content();
}

std::ostream& operator<<(std::ostream& out, const RefOctetString& value) {
  if (value.get() == nullptr) return out;
  const std::string text = value.get()->asString();
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

GeneralizedTime::GeneralizedTime(const asn1_string_st* native) : seconds_(timeIn(native)) {}

Time GeneralizedTime::asTime() const { return Time::then(seconds_, true); }

RefGeneralizedTime::RefGeneralizedTime(const asn1_string_st* native, bool /*copy*/) {
  if (native != nullptr) *this = RefGeneralizedTime(new GeneralizedTime(native));
}

bool RefGeneralizedTime::operator<(const RefGeneralizedTime& other) const noexcept {
  const GeneralizedTime* mine = get();
  const GeneralizedTime* theirs = other.get();
  if (mine == nullptr || theirs == nullptr) return mine == nullptr && theirs != nullptr;
  return mine->seconds() < theirs->seconds();
}

ObjectIdentifier::ObjectIdentifier(const std::string& dotted)
    : text_(dotted), native_(makeObject(dotted)) {}

ObjectIdentifier::~ObjectIdentifier() {
  if (owns_) ASN1_OBJECT_free(native_);
}

ASN1_OBJECT* ObjectIdentifier::relinquishOwnerShip() noexcept {
  if (!owns_) return nullptr;
  owns_ = false;
  return native_;
}

RefObjectIdentifier::RefObjectIdentifier(const std::string& dotted)
    : Ref<ObjectIdentifier>(new ObjectIdentifier(dotted)) {}

}  // namespace Velantrix::Crypto::ASN1
