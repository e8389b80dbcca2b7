#include "store/CRLFileHeader.h"

#include <charconv>
#include <cstdint>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr std::string_view kURI = "URI: ";
constexpr std::string_view kExpires = "Expires: ";

// Takes the first line off `rest` when it begins with `key`, and gives what follows it.
std::optional<std::string_view> takeLine(std::string_view& rest, std::string_view key) {
  if (!rest.starts_with(key)) return std::nullopt;
  const std::size_t end = rest.find('\n');
  std::string_view value = rest.substr(0, end).substr(key.size());
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  if (value.ends_with('\r')) value.remove_suffix(1);
  return value;
}

}  // namespace

CRLFileHeader CRLFileHeader::parse(std::string_view content) {
  CRLFileHeader header;
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

std::string CRLFileHeader::text(const std::string& canonicalURI, const Time& expires) {
  return std::string(kURI) + canonicalURI + "\n" + std::string(kExpires) +
         std::to_string(expires.seconds()) + "\n";
}

}  // namespace Velantrix::Crypto::PKX509
