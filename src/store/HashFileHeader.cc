#include "store/HashFileHeader.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Hex.h"

#include <openssl/evp.h>

#include <array>
#include <charconv>
#include <cstdint>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr std::string_view kURI = "URI: ";
constexpr std::string_view kExpires = "Expires: ";
constexpr std::string_view kEmail = "Email: ";

// Of an address as it is written. RFC 5321, 4.5.3.1: a mailbox has at most 320 octets.
constexpr std::size_t kMaximumAddress = 1024;

// Takes the first line off `rest` when it begins with `key`, and gives what follows it.
std::optional<std::string_view> takeLine(std::string_view& rest, std::string_view key) {
  if (!rest.starts_with(key)) return std::nullopt;
  const std::size_t end = rest.find('\n');
  std::string_view value = rest.substr(0, end).substr(key.size());
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  if (value.ends_with('\r')) value.remove_suffix(1);
  return value;
}

std::string digestOf(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    fail({"HashFileHeader", "HashFileHeader"}, "SHA-256 is not available.");
  }
  return hexText(digest.data(), length);
}

}  // namespace

HashFileHeader HashFileHeader::parse(std::string_view content) {
  HashFileHeader header;
  header.email = takeLine(content, kEmail);
  header.uri = takeLine(content, kURI);
  if (const std::optional<std::string_view> value = takeLine(content, kExpires)) {
    std::int64_t seconds = 0;
    const auto [end, error] =
        std::from_chars(value->data(), value->data() + value->size(), seconds);
    if (error == std::errc() && end == value->data() + value->size()) {
      header.expires = Time::then(seconds, true);
    }
  }
  return header;
}

std::string HashFileHeader::text(const std::string& canonicalURI, const Time& expires) {
  return std::string(kURI) + canonicalURI + "\n" + std::string(kExpires) +
         std::to_string(expires.seconds()) + "\n";
}

std::string HashFileHeader::text(const EmailAddress& address) {
  return std::string(kEmail) + emailText(address) + "\n";
}

std::string HashFileHeader::emailText(const EmailAddress& address) {
  const std::string& plain = address.address();
  std::string text;
  for (const char c : plain) {
    if (c > ' ' && c <= '~' && c != '%') {
      text += c;
    } else {
      text += '%';
      appendHex(text, static_cast<unsigned char>(c));
    }
    if (text.size() > kMaximumAddress) return "sha256:" + digestOf(plain);
  }
  return text;
}

}  // namespace Velantrix::Crypto::PKX509
