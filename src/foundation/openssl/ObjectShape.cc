#include "foundation/openssl/ObjectShape.h"

#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <algorithm>
#include <optional>
#include <string_view>

namespace Velantrix::Crypto {

namespace {

// Elements one after the other.
class Elements {
 public:
  Elements(const unsigned char* position, const unsigned char* end) noexcept
      : position_(position), end_(end) {}
  // What an element holds. Where its length is indefinite, that ends somewhere before `end`.
  Elements(const DerHeader& outer, const unsigned char* end) noexcept
      : Elements(outer.content, outer.next != nullptr ? outer.next : end) {}

  const unsigned char* end() const noexcept { return end_; }
  const unsigned char*& position() noexcept { return position_; }
  bool atEnd() const noexcept { return position_ == end_; }

  std::optional<DerHeader> first() const noexcept {
    return atEnd() ? std::nullopt : derHeader(position_, end_);
  }
  // The element behind `before`, of which the end is known.
  std::optional<DerHeader> after(const DerHeader& before) const noexcept {
    return Elements(before.next, end_).first();
  }

 private:
  const unsigned char* position_;
  const unsigned char* end_;
};

bool isTime(const DerHeader& header) {
  return header.is(V_ASN1_UTCTIME) || header.is(V_ASN1_GENERALIZEDTIME);
}

// Objects that hold keys, without OpenSSL's types for them: of a public key OpenSSL decodes what it
// holds as well, whatever it is, and that takes a hundred times as long. What is false here may
// still be taken by the decoder of the whole object.

std::string_view contentOf(const DerHeader& header) {
  return {reinterpret_cast<const char*>(header.content),
          static_cast<std::size_t>(header.next - header.content)};
}

// Whether every decoder takes the value. Others may be good, too; these are the usual ones.
bool isPlain(const DerHeader& header, int tag) {
  if (!header.is(tag) || header.constructed) return false;
  const std::string_view content = contentOf(header);
  switch (tag) {
    case V_ASN1_NULL:
      return content.empty();
    case V_ASN1_OCTET_STRING:
      return true;
    case V_ASN1_BIT_STRING:
      return content.starts_with('\0');  // no bit of the last octet is unused
    case V_ASN1_INTEGER:
      return content.size() == 1;
    default:  // an object identifier of arcs below 128
      return !content.empty() && std::all_of(content.begin(), content.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x80;
      });
  }
}

bool readPlain(int tag, Elements& rest) {
  const std::optional<DerHeader> header = rest.first();
  if (!header || !isPlain(*header, tag)) return false;
  rest.position() = header->next;
  return true;
}

template <class T>
bool readOne(int tag, T* (*d2i)(T**, const unsigned char**, long), Elements& rest) {
  return readPlain(tag, rest) || decodeNext(d2i, rest.position(), rest.end()) != nullptr;
}

// The content of the SEQUENCE in front, which is passed; nothing when there is none.
std::optional<Elements> readSequence(Elements& rest) {
  const std::optional<DerHeader> header = rest.first();
  if (!header || !header->isWholeSequence()) return std::nullopt;
  rest.position() = header->next;
  return Elements(*header, rest.end());
}

bool readAlgorithm(Elements& rest) {
  Elements ahead = rest;
  std::optional<Elements> parts = readSequence(ahead);
  if (parts && readPlain(V_ASN1_OBJECT, *parts) &&
      (parts->atEnd() || (readPlain(V_ASN1_NULL, *parts) && parts->atEnd()))) {
    rest = ahead;
    return true;
  }
  const Owned<X509_ALGOR> algorithm = decodeNext(d2i_X509_ALGOR, rest.position(), rest.end());
  return algorithm != nullptr;
}

bool readPublicKey(Elements& rest) {
  // OpenSSL refuses keys of which the type is very long.
  constexpr std::ptrdiff_t kShort = 64;
  std::optional<Elements> key = readSequence(rest);
  if (!key) return false;
  const std::optional<DerHeader> algorithm = key->first();
  if (!algorithm || algorithm->next == nullptr) return false;
  const std::optional<DerHeader> type = Elements(*algorithm, key->end()).first();
  return type && type->next - type->content <= kShort && readAlgorithm(*key) &&
         readOne(V_ASN1_BIT_STRING, d2i_ASN1_BIT_STRING, *key) && key->atEnd();
}

bool readAttributes(Elements& rest) {
  if (rest.atEnd()) return true;
  const std::optional<DerHeader> header = rest.first();
  if (!header || header->tag != 0 || header->tagClass != V_ASN1_CONTEXT_SPECIFIC ||
      !header->constructed || header->next != rest.end()) {
    return false;
  }
  Elements attributes(*header, rest.end());
  while (!attributes.atEnd()) {
    if (decodeNext(d2i_X509_ATTRIBUTE, attributes.position(), attributes.end()) == nullptr) {
      return false;
    }
  }
  return true;
}

bool readRequest(Elements& rest) {
  std::optional<Elements> request = readSequence(rest);
  if (!request) return false;
  std::optional<Elements> info = readSequence(*request);
  return info && readOne(V_ASN1_INTEGER, d2i_ASN1_INTEGER, *info) &&
         decodeNext(d2i_X509_NAME, info->position(), info->end()) != nullptr &&
         readPublicKey(*info) && readAttributes(*info) && readAlgorithm(*request) &&
         readOne(V_ASN1_BIT_STRING, d2i_ASN1_BIT_STRING, *request) && request->atEnd();
}

// Those of version 0 and without attributes.
bool readPrivateKey(Elements& rest) {
  std::optional<Elements> key = readSequence(rest);
  if (!key) return false;
  const std::optional<DerHeader> version = key->first();
  return version && readPlain(V_ASN1_INTEGER, *key) && *version->content == 0 &&
         readAlgorithm(*key) && readPlain(V_ASN1_OCTET_STRING, *key) && key->atEnd();
}

bool readEncryptedKey(Elements& rest) {
  std::optional<Elements> key = readSequence(rest);
  return key && readAlgorithm(*key) && readPlain(V_ASN1_OCTET_STRING, *key) && key->atEnd();
}

// Those without content.
bool readPkcs7(Elements& rest) {
  std::optional<Elements> parts = readSequence(rest);
  return parts && readPlain(V_ASN1_OBJECT, *parts) && parts->atEnd();
}

bool decodesAs(const ASN1_ITEM* item, const unsigned char* der, std::size_t length) {
  const unsigned char* end = der;
  ASN1_VALUE* value = ASN1_item_d2i(nullptr, &end, static_cast<long>(length), item);
  if (value == nullptr) return false;
  ASN1_item_free(value, item);
  return end == der + length;
}

}  // namespace

// Each decoder wants certain tags at the places looked at, whatever else it puts up with. Where the
// end of an element is not known, what is behind it is left open.
ObjectKinds ObjectKinds::possible(const unsigned char* der, std::size_t length) noexcept {
  const ErrorScope errors;
  const unsigned char* const end = der + length;
  const std::optional<DerHeader> outer = Elements(der, end).first();
  if (!outer || !outer->is(V_ASN1_SEQUENCE)) return of();
  const Elements parts(*outer, end);
  const std::optional<DerHeader> first = parts.first();
  if (!first) return of();
  if (first->is(V_ASN1_OBJECT)) return of(ObjectKind::kPkcs7);
  if (first->is(V_ASN1_INTEGER)) return of(ObjectKind::kPrivateKey, ObjectKind::kPkcs12);
  if (!first->is(V_ASN1_SEQUENCE)) return of();

  const Elements fields(*first, parts.end());
  const std::optional<DerHeader> field = fields.first();
  if (!field) return of();
  if (field->is(V_ASN1_OBJECT)) {  // an algorithm
    if (first->next == nullptr) return of(ObjectKind::kPublicKey, ObjectKind::kEncryptedKey);
    const std::optional<DerHeader> second = parts.after(*first);
    if (second && second->is(V_ASN1_BIT_STRING)) return of(ObjectKind::kPublicKey);
    if (second && second->is(V_ASN1_OCTET_STRING)) return of(ObjectKind::kEncryptedKey);
    return of();
  }
  if (field->tagClass == V_ASN1_CONTEXT_SPECIFIC) return of(ObjectKind::kCertificate);
  if (field->is(V_ASN1_SEQUENCE)) return of(ObjectKind::kCRL);  // version 1 is not said
  if (!field->is(V_ASN1_INTEGER) || field->next == nullptr) return of();

  // A version, or the serial number of a certificate of version 1.
  const std::optional<DerHeader> second = fields.after(*field);
  if (!second || !second->is(V_ASN1_SEQUENCE)) return of();
  const std::optional<DerHeader> within = Elements(*second, fields.end()).first();
  if (!within || !within->is(V_ASN1_OBJECT)) return of(ObjectKind::kRequest);  // a name
  const ObjectKinds either = of(ObjectKind::kCertificate, ObjectKind::kCRL);
  if (second->next == nullptr) return either;
  const std::optional<DerHeader> issuer = fields.after(*second);
  if (!issuer || issuer->next == nullptr) return either;
  const std::optional<DerHeader> times = fields.after(*issuer);
  if (times && times->is(V_ASN1_SEQUENCE)) return of(ObjectKind::kCertificate);
  if (times && isTime(*times)) return of(ObjectKind::kCRL);
  return of();
}

bool isKnownObject(const unsigned char* der, std::size_t length) {
  struct Reader {
    ObjectKind kind;
    bool (*read)(Elements& rest);  // null where the decoder is cheap
    const ASN1_ITEM* item;
  };
  const Reader readers[] = {
      {ObjectKind::kCertificate, nullptr, ASN1_ITEM_rptr(X509)},
      {ObjectKind::kCRL, nullptr, ASN1_ITEM_rptr(X509_CRL)},
      {ObjectKind::kRequest, readRequest, ASN1_ITEM_rptr(X509_REQ)},
      {ObjectKind::kPublicKey, readPublicKey, ASN1_ITEM_rptr(X509_PUBKEY)},
      {ObjectKind::kPrivateKey, readPrivateKey, ASN1_ITEM_rptr(PKCS8_PRIV_KEY_INFO)},
      {ObjectKind::kEncryptedKey, readEncryptedKey, ASN1_ITEM_rptr(X509_SIG)},
      {ObjectKind::kPkcs7, readPkcs7, ASN1_ITEM_rptr(PKCS7)},
      {ObjectKind::kPkcs12, nullptr, ASN1_ITEM_rptr(PKCS12)},
  };
  const ErrorScope errors;
  const ObjectKinds kinds = ObjectKinds::possible(der, length);
  for (const Reader& reader : readers) {
    if (!kinds.has(reader.kind)) continue;
    Elements element(der, der + length);
    if (reader.read != nullptr && reader.read(element) && element.atEnd()) return true;
    if (decodesAs(reader.item, der, length)) return true;
  }
  return false;
}

}  // namespace Velantrix::Crypto
