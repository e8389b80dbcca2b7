#include "foundation/model/DistinguishedNameText.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Hex.h"
#include "foundation/base/Utf8.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/ObjectIdentifierText.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

// OpenSSL holds names of up to 1 MiB of DER; the text of one octet takes up to six characters.
constexpr std::size_t kMaxDer = std::size_t{1024} * 1024;
constexpr std::size_t kMaxText = 8 * kMaxDer;

// --- printing ---

constexpr bool isAlpha(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// RFC 4512's keystring, the only names that RFC 4514 allows for types.
bool isKeystring(std::string_view text) {
  return !text.empty() && isAlpha(text.front()) &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return isAlpha(c) || isDigit(c) || c == '-'; });
}

// OpenSSL's short name, if it stands for this type both ways; empty otherwise.
std::string_view shortName(const ASN1_OBJECT* type) {
  const int nid = OBJ_obj2nid(type);
  const char* name = nid == NID_undef ? nullptr : OBJ_nid2sn(nid);
  if (name == nullptr || !isKeystring(name) || OBJ_sn2nid(name) != nid) return {};
  return name;
}

// RFC 4514, 2.4.
void appendEscaped(std::string& out, std::string_view value) {
  constexpr std::string_view kSpecial = "\"+,;<>\\";
  std::size_t i = 0;
  while (i < value.size()) {
    const Utf8Character character = firstUtf8Character(value.substr(i));
    const std::string_view encoded = value.substr(i, character.length);
    if (!character.value || isUnfitToShow(*character.value)) {
      Velantrix::appendEscaped(out, encoded);
    } else {
      const char c = value[i];
      const bool edge = i == 0 || i + 1 == value.size();
      if (kSpecial.find(c) != std::string_view::npos || (c == ' ' && edge) ||
          (c == '#' && i == 0)) {
        out += '\\';
      }
      out.append(encoded);
    }
    i += character.length;
  }
}

// The types that OpenSSL compares by their characters, whatever the encoding. Values of every other
// type are compared with their type, and so have to be printed with it.
bool isText(const ASN1_STRING* value) {
  switch (ASN1_STRING_type(value)) {
    case V_ASN1_UTF8STRING:
    case V_ASN1_BMPSTRING:
    case V_ASN1_UNIVERSALSTRING:
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_T61STRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_VISIBLESTRING:
      return true;
    default:
      return false;
  }
}

// ASCII is the same in all of them, and needs no conversion.
bool isASCII(const ASN1_STRING* value, std::string_view octets) {
  switch (ASN1_STRING_type(value)) {
    case V_ASN1_UTF8STRING:
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_IA5STRING:
      return std::all_of(octets.begin(), octets.end(),
                         [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    default:
      return false;
  }
}

bool appendText(std::string& out, const ASN1_STRING* value) {
  const std::string_view octets(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                                static_cast<std::size_t>(ASN1_STRING_length(value)));
  if (isASCII(value, octets)) {
    appendEscaped(out, octets);
    return true;
  }
  unsigned char* converted = nullptr;
  const int length = ASN1_STRING_to_UTF8(&converted, value);
  const OwnedMemory<unsigned char> owner(converted);
  if (length < 0) return false;
  appendEscaped(out, {reinterpret_cast<const char*>(converted), static_cast<std::size_t>(length)});
  return true;
}

void appendHexValue(std::string& out, const ASN1_STRING* value) {
  // An ASN1_TYPE that only borrows the value: it is read and goes out of scope unfreed.
  ASN1_TYPE any{};
  any.type = ASN1_STRING_type(value);
  any.value.asn1_string = const_cast<ASN1_STRING*>(value);
  unsigned char* der = nullptr;
  const int length = i2d_ASN1_TYPE(&any, &der);
  const OwnedMemory<unsigned char> owner(der);
  if (length < 0) {
    fail({"X509::DistinguishedName", "DistinguishedNameText"}, "value cannot be encoded");
  }
  out += '#';
  out += hexText(der, static_cast<std::size_t>(length));
}

void appendAttribute(std::string& out, const X509_NAME_ENTRY* entry) {
  const ASN1_OBJECT* type = X509_NAME_ENTRY_get_object(entry);
  const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
  const std::string_view name = shortName(type);
  if (name.empty()) {
    out += objectIdentifierText(type);
  } else {
    out += name;
  }
  out += '=';
  // RFC 4514, 2.4: a type in numbers has its value in hexadecimal.
  if (name.empty() || !isText(value) || !appendText(out, value)) appendHexValue(out, value);
}

// --- reading ---

constexpr bool isBlank(char c) noexcept { return c == ' '; }

// The types that RFC 4514, 3 names; they are recognised in any case of letters.
constexpr std::array<std::pair<std::string_view, int>, 9> kStandardTypes{{
    {"CN", NID_commonName},
    {"L", NID_localityName},
    {"ST", NID_stateOrProvinceName},
    {"O", NID_organizationName},
    {"OU", NID_organizationalUnitName},
    {"C", NID_countryName},
    {"STREET", NID_streetAddress},
    {"DC", NID_domainComponent},
    {"UID", NID_userId},
}};

std::string upperCase(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return upper;
}

std::optional<std::string> decodeHex(std::string_view digits) {
  if (digits.size() % 2 != 0) return std::nullopt;
  std::string decoded;
  decoded.reserve(digits.size() / 2);
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const int high = hexValue(digits[i]);
    const int low = hexValue(digits[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
  }
  return decoded;
}

// The content octets of the type that @p text names.
std::optional<std::string> typeContent(std::string_view text) {
  if (text.empty()) return std::nullopt;
  if (text.front() == '#') return decodeHex(text.substr(1));
  if (isDigit(text.front())) return objectIdentifierContent(text);
  if (!isKeystring(text)) {
    // RFC 2253 allowed this prefix in front of numbers.
    if (text.size() > 4 && upperCase(text.substr(0, 4)) == "OID.") {
      return objectIdentifierContent(text.substr(4));
    }
    return std::nullopt;
  }
  const std::string name(text);
  int nid = OBJ_sn2nid(name.c_str());
  if (nid == NID_undef) nid = OBJ_ln2nid(name.c_str());
  if (nid == NID_undef) {
    const std::string upper = upperCase(text);
    for (const auto& [standard, number] : kStandardTypes) {
      if (upper == standard) nid = number;
    }
  }
  const ASN1_OBJECT* object = nid == NID_undef ? nullptr : OBJ_nid2obj(nid);
  if (object == nullptr || OBJ_length(object) == 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(OBJ_get0_data(object)), OBJ_length(object));
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  // The DER of the RDNSequence, or nothing.
  std::optional<std::string> parse() {
    std::vector<std::string> rdns;
    do {
      std::optional<std::string> rdn = relativeName();
      if (!rdn) return std::nullopt;
      rdns.push_back(std::move(*rdn));
    } while (skip(','));
    if (position_ != text_.size()) return std::nullopt;

    std::string content;
    for (auto rdn = rdns.rbegin(); rdn != rdns.rend(); ++rdn) content += *rdn;
    std::string der;
    appendDer(der, V_ASN1_SEQUENCE, true, content);
    return der;
  }

 private:
  bool atEnd() const { return position_ == text_.size(); }
  bool skip(char c) {
    if (atEnd() || text_[position_] != c) return false;
    ++position_;
    return true;
  }
  void skipBlanks() {
    while (!atEnd() && isBlank(text_[position_])) ++position_;
  }

  std::optional<std::string> relativeName() {
    std::vector<std::string> attributes;
    do {
      std::optional<std::string> attribute = attributeTypeAndValue();
      if (!attribute) return std::nullopt;
      attributes.push_back(std::move(*attribute));
    } while (skip('+'));
    // X.690, 11.6: the elements of a SET OF stand in the order of their encodings.
    std::sort(attributes.begin(), attributes.end());
    std::string content;
    for (const std::string& attribute : attributes) content += attribute;
    std::string der;
    appendDer(der, V_ASN1_SET, true, content);
    return der;
  }

  std::optional<std::string> attributeTypeAndValue() {
    skipBlanks();
    const std::size_t equals = text_.find('=', position_);
    if (equals == std::string_view::npos) return std::nullopt;
    std::string_view type = text_.substr(position_, equals - position_);
    while (!type.empty() && isBlank(type.back())) type.remove_suffix(1);
    const std::optional<std::string> object = typeContent(type);
    if (!object) return std::nullopt;
    position_ = equals + 1;
    skipBlanks();

    std::string content;
    appendDer(content, V_ASN1_OBJECT, false, *object);
    if (skip('#')) {
      const std::size_t end = std::min(text_.find_first_of(",+ ", position_), text_.size());
      const std::optional<std::string> value = decodeHex(text_.substr(position_, end - position_));
      if (!value || value->empty()) return std::nullopt;
      content += *value;
      position_ = end;
      skipBlanks();
      if (!atEnd() && text_[position_] != ',' && text_[position_] != '+') return std::nullopt;
    } else {
      const std::optional<std::string> value = textValue();
      if (!value) return std::nullopt;
      appendDer(content, V_ASN1_UTF8STRING, false, *value);
    }
    std::string der;
    appendDer(der, V_ASN1_SEQUENCE, true, content);
    // What OpenSSL would refuse is not put together: a text has room for millions of attributes.
    size_ += der.size();
    if (size_ > kMaxDer) return std::nullopt;
    return der;
  }

  // Up to the next separator, without the blanks in front of it unless they are escaped.
  std::optional<std::string> textValue() {
    constexpr std::string_view kEscapable = " \"#+,;<=>\\";
    constexpr std::string_view kForbidden{"\";<>\0", 5};
    std::string value;
    std::size_t kept = 0;
    while (!atEnd() && text_[position_] != ',' && text_[position_] != '+') {
      const char c = text_[position_++];
      if (c != '\\') {
        if (kForbidden.find(c) != std::string_view::npos) return std::nullopt;
        value += c;
        if (!isBlank(c)) kept = value.size();
        continue;
      }
      if (atEnd()) return std::nullopt;
      if (kEscapable.find(text_[position_]) != std::string_view::npos) {
        value += text_[position_++];
      } else {
        const std::optional<std::string> octet = decodeHex(text_.substr(position_, 2));
        if (!octet || octet->size() != 1) return std::nullopt;
        value += *octet;
        position_ += 2;
      }
      kept = value.size();
    }
    value.resize(kept);
    return value;
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::size_t size_ = 0;  // of the attributes so far
};

}  // namespace

std::string distinguishedNameText(const X509_NAME* name) {
  const ErrorScope errors;
  std::string text;
  // Entries stand in the order of the DER, and know which RDN they belong to: the last comes first.
  int end = X509_NAME_entry_count(name);
  while (end > 0) {
    const int rdn = X509_NAME_ENTRY_set(X509_NAME_get_entry(name, end - 1));
    int begin = end - 1;
    while (begin > 0 && X509_NAME_ENTRY_set(X509_NAME_get_entry(name, begin - 1)) == rdn) --begin;
    if (!text.empty()) text += ',';
    for (int i = begin; i < end; ++i) {
      if (i != begin) text += '+';
      appendAttribute(text, X509_NAME_get_entry(name, i));
    }
    end = begin;
  }
  return text;
}

Owned<X509_NAME> parseDistinguishedName(std::string_view text) {
  if (text.empty() || text.size() > kMaxText) return nullptr;
  const ErrorScope errors;
  const std::optional<std::string> der = Parser(text).parse();
  if (!der) return nullptr;
  // OpenSSL judges what has been put together; its size tables for single types (64 characters for
  // a common name) are for those who make names and do not get in the way of decoding.
  return decodeWhole(d2i_X509_NAME, octets(*der), der->size());
}

}  // namespace Velantrix::Crypto::PKX509
