#include "store/HashFileHeader.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Hex.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr std::string_view kURI = "URI: ";
constexpr std::string_view kExpires = "Expires: ";
constexpr std::string_view kETag = "ETag: ";
constexpr std::string_view kLastModified = "Last-Modified: ";
constexpr std::string_view kFetched = "Fetched: ";
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

std::optional<Time> takeTime(std::string_view& rest, std::string_view key) {
  const std::optional<std::string_view> value = takeLine(rest, key);
  if (!value) return std::nullopt;
  std::int64_t seconds = 0;
  const char* const last = value->data() + value->size();
  const auto [end, error] = std::from_chars(value->data(), last, seconds);
  if (error != std::errc() || end != last) return std::nullopt;
  return Time::then(seconds, true);
}

std::optional<std::string_view> takeValidator(std::string_view& rest, std::string_view key) {
  const std::optional<std::string_view> value = takeLine(rest, key);
  return value && HashFileHeader::isKept(*value) ? value : std::nullopt;
}

void appendLine(std::string& text, std::string_view key, std::string_view value) {
  text.append(key).append(value) += '\n';
}

void appendTime(std::string& text, std::string_view key, const Time& time) {
  appendLine(text, key, std::to_string(time.seconds()));
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
  std::string_view rest = content;
  header.email = takeLine(rest, kEmail);
  header.uri = takeLine(rest, kURI);
  header.expires = takeTime(rest, kExpires);
  header.etag = takeValidator(rest, kETag);
  header.lastModified = takeValidator(rest, kLastModified);
  header.fetched = takeTime(rest, kFetched);
  header.size = content.size() - rest.size();
  return header;
}

std::string HashFileHeader::text(const std::string& canonicalURI, const Time& expires) {
  return text(canonicalURI, expires, {});
}

std::string HashFileHeader::text(const std::string& canonicalURI, const Time& expires,
                                 const Notes& notes) {
  std::string text;
  appendLine(text, kURI, canonicalURI);
  appendTime(text, kExpires, expires);
  if (isKept(notes.etag)) appendLine(text, kETag, notes.etag);
  if (isKept(notes.lastModified)) appendLine(text, kLastModified, notes.lastModified);
  if (notes.fetched) appendTime(text, kFetched, *notes.fetched);
  return text;
}

std::string HashFileHeader::text(const EmailAddress& address) {
  return std::string(kEmail) + emailText(address) + "\n";
}

bool HashFileHeader::isKept(std::string_view validator) noexcept {
  return !validator.empty() && validator.size() <= kMaximumValidator &&
         validator.find("-----") == std::string_view::npos &&
         std::all_of(validator.begin(), validator.end(),
                     [](char c) { return c >= ' ' && c <= '~'; });
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
