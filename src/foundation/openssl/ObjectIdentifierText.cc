#include "foundation/openssl/ObjectIdentifierText.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Hex.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/bn.h>
#include <openssl/objects.h>

#include <charconv>
#include <cstdint>

namespace Velantrix::Crypto {

namespace {

// Bounds of one arc; 1024 octets of seven bits have 2158 decimal digits.
constexpr std::size_t kMaxArcOctets = 1024;
constexpr std::size_t kMaxArcDigits = 2158;
// The most octets and digits that are sure to fit 64 bits.
constexpr std::size_t kWordOctets = 9;
constexpr std::size_t kWordDigits = 19;

constexpr Origin kHere{"ASN1::ObjectIdentifier", "ObjectIdentifierText"};
constexpr const char* kNoMemory = "no memory for an arc";

std::string decimal(std::uint64_t value) { return std::to_string(value); }

// One subidentifier as a decimal number. The first one holds two arcs: 40 times the first plus the
// second, where only a first arc of 2 allows the second to be 40 or more (X.690, 8.19.4).
std::string smallArc(std::string_view octetsOfArc, bool first) {
  std::uint64_t value = 0;
  for (const char c : octetsOfArc) {
    value = (value << 7) | (static_cast<unsigned char>(c) & 0x7fU);
  }
  if (!first) return decimal(value);
  if (value < 80) return decimal(value / 40) + '.' + decimal(value % 40);
  return "2." + decimal(value - 80);
}

std::string bigArc(std::string_view octetsOfArc, bool first) {
  Owned<BIGNUM> value(BN_new());
  if (value == nullptr) fail(kHere, kNoMemory);
  for (const char c : octetsOfArc) {
    if (BN_lshift(value.get(), value.get(), 7) != 1 ||
        BN_add_word(value.get(), static_cast<unsigned char>(c) & 0x7fU) != 1) {
      fail(kHere, kNoMemory);
    }
  }
  if (first && BN_sub_word(value.get(), 80) != 1) fail(kHere, kNoMemory);
  const OwnedMemory<char> text(BN_bn2dec(value.get()));
  if (text == nullptr) fail(kHere, kNoMemory);
  return (first ? "2." : "") + std::string(text.get());
}

void appendBase128(std::string& out, std::uint64_t value) {
  // Every octet but the last has its top bit set.
  std::string reversed(1, static_cast<char>(value & 0x7fU));
  for (value >>= 7; value != 0; value >>= 7) reversed += static_cast<char>((value & 0x7fU) | 0x80U);
  out.append(reversed.rbegin(), reversed.rend());
}

void appendBase128(std::string& out, BIGNUM* value) {
  std::string reversed;
  while (BN_is_zero(value) == 0) {
    const BN_ULONG low = BN_mod_word(value, 128);
    reversed += static_cast<char>(low | (reversed.empty() ? 0U : 0x80U));
    if (BN_rshift(value, value, 7) != 1) fail(kHere, kNoMemory);
  }
  out.append(reversed.rbegin(), reversed.rend());
}

// Appends the arc that @p digits name, with @p addend added. The digits are decimal digits only.
bool appendArc(std::string& out, std::string_view digits, unsigned int addend) {
  if (digits.size() <= kWordDigits) {
    std::uint64_t value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    appendBase128(out, value + addend);
    return true;
  }
  if (digits.size() > kMaxArcDigits) return false;
  BIGNUM* parsed = nullptr;
  const std::string terminated(digits);
  const int used = BN_dec2bn(&parsed, terminated.c_str());
  const Owned<BIGNUM> value(parsed);
  if (used == 0 || BN_add_word(value.get(), addend) != 1) fail(kHere, kNoMemory);
  appendBase128(out, value.get());
  return true;
}

bool isNumber(std::string_view text) {
  return !text.empty() && (text.size() == 1 || text.front() != '0') &&
         text.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

std::string objectIdentifierText(const ASN1_OBJECT* object) {
  const std::string_view content(reinterpret_cast<const char*>(OBJ_get0_data(object)),
                                 OBJ_length(object));
  std::string text;
  std::size_t begin = 0;
  while (begin < content.size()) {
    std::size_t end = begin;
    while (end < content.size() && (static_cast<unsigned char>(content[end]) & 0x80U) != 0) ++end;
    if (end == content.size() || end - begin >= kMaxArcOctets) {
      return '#' + hexText(OBJ_get0_data(object), content.size());
    }
    ++end;
    const std::string_view arc = content.substr(begin, end - begin);
    if (begin != 0) text += '.';
    text += arc.size() <= kWordOctets ? smallArc(arc, begin == 0) : bigArc(arc, begin == 0);
    begin = end;
  }
  return text;
}

std::optional<std::string> objectIdentifierContent(std::string_view text) {
  std::string content;
  std::string_view first;
  for (std::size_t arcs = 0;; ++arcs) {
    const std::size_t dot = text.find('.');
    const std::string_view arc = text.substr(0, dot);
    if (!isNumber(arc)) return std::nullopt;
    if (arcs == 0) {
      if (arc != "0" && arc != "1" && arc != "2") return std::nullopt;
      first = arc;
    } else if (arcs == 1) {
      if (first != "2" && (arc.size() > 2 || (arc.size() == 2 && arc >= "40"))) return std::nullopt;
      if (!appendArc(content, arc, static_cast<unsigned int>(first[0] - '0') * 40)) {
        return std::nullopt;
      }
    } else if (!appendArc(content, arc, 0)) {
      return std::nullopt;
    }
    if (dot == std::string_view::npos) {
      if (arcs == 0) return std::nullopt;
      return content;
    }
    text.remove_prefix(dot + 1);
  }
}

}  // namespace Velantrix::Crypto
