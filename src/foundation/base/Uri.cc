#include "foundation/base/DotSegments.h"
#include "foundation/base/Hex.h"

#include <velantrix/Uri.h>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace Velantrix {

namespace {

constexpr std::size_t kMaxLength = std::size_t{64} * 1024;
constexpr unsigned int kMaxPort = 65535;

struct DefaultPort {
  std::string_view scheme;  // with its colon
  unsigned int port;
};
// The schemes that certificates use, and ftp.
constexpr std::array kDefaultPorts = {
    DefaultPort{"http:", 80},   DefaultPort{"https:", 443}, DefaultPort{"ldap:", 389},
    DefaultPort{"ldaps:", 636}, DefaultPort{"ftp:", 21},
};

// Boost.URL's string types change from release to release; what they have in common is enough.
template <class Text>
std::string_view view(const Text& text) {
  return std::string_view(text.data(), text.size());
}

// Without regard to the locale: a URI is ASCII.
char toLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char toUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), toLower);
  return lower;
}

// RFC 3986, 2.3.
bool isUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~").find(c) != std::string_view::npos;
}

// RFC 3986, 6.2.2.1 and 6.2.2.2: an encoded unreserved character is itself, every other encoding is
// in upper case. The parser has seen to it that two hexadecimal digits follow each '%'.
std::string normalEncoding(std::string_view text, bool caseMatters) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      const auto decoded = static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      if (!isUnreserved(decoded)) {
        out += {'%', toUpper(text[i + 1]), toUpper(text[i + 2])};
        i += 2;
        continue;
      }
      c = decoded;
      i += 2;
    }
    out += caseMatters ? c : toLower(c);
  }
  return out;
}

// The digits of a port as a number, 0 for none of them; nothing when it is too large.
std::optional<unsigned int> parsePort(std::string_view digits) {
  unsigned int port = 0;
  for (const char digit : digits) {
    port = port * 10 + static_cast<unsigned int>(digit - '0');
    if (port > kMaxPort) return std::nullopt;
  }
  return port;
}

bool isDefaultPort(std::string_view scheme, unsigned int port) {
  return std::any_of(kDefaultPorts.begin(), kDefaultPorts.end(), [&](const DefaultPort& known) {
    return known.port == port && known.scheme == scheme;
  });
}

// Boost.URL only parses here. Its own normal form differs from release to release (leading ".."
// segments, empty paths), and this text is hashed into the names of files that outlive a release.
std::string normalForm(const boost::urls::url_view& url, const std::string& scheme,
                       unsigned int port) {
  std::string out = scheme;
  std::string path = normalEncoding(view(url.encoded_path()), true);
  // A path without a slash in front is opaque ("urn:", "mailto:"); dots mean nothing there.
  if (path.starts_with('/')) path = withoutDotSegments(path);
  if (url.has_authority()) {
    out += "//";
    if (url.has_userinfo()) out += normalEncoding(view(url.encoded_userinfo()), true) + "@";
    out += normalEncoding(view(url.encoded_host()), false);
    if (!view(url.port()).empty() && !isDefaultPort(scheme, port)) {
      out += ":" + std::to_string(port);
    }
    if (path.empty()) path = "/";
  } else if (path.starts_with("//")) {
    out += "/.";  // else what follows would be read as an authority
  }
  out += path;
  if (url.has_query()) out += "?" + normalEncoding(view(url.encoded_query()), true);
  if (url.has_fragment()) out += "#" + normalEncoding(view(url.encoded_fragment()), true);
  return out;
}

}  // namespace

std::string withoutDotSegments(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/', 1), path.size());
    const std::string_view segment = path.substr(1, end - 1);
    const bool last = end == path.size();
    if (segment == "..") {
      out.erase(out.empty() ? 0 : out.rfind('/'));
      if (last) out += '/';
    } else if (segment == ".") {
      if (last) out += '/';
    } else {
      out += path.substr(0, end);
    }
    path.remove_prefix(end);
  }
  return out;
}

bool hasDotSegments(std::string_view path) {
  const std::string text = normalEncoding(path, true);
  for (std::string_view rest = text;;) {
    const std::size_t end = rest.find('/');
    const std::string_view segment = rest.substr(0, end);
    if (segment == "." || segment == "..") return true;
    if (end == std::string_view::npos) return false;
    rest.remove_prefix(end + 1);
  }
}

Uri::Uri(const std::string& text) {
  if (text.size() > kMaxLength) return;
  const auto parsed = boost::urls::parse_uri(text);
  if (!parsed) return;
  const boost::urls::url_view& url = *parsed;
  const std::optional<unsigned int> port = parsePort(view(url.port()));
  if (!port) return;
  const std::string_view path = view(url.encoded_path());
  // RFC 3986, 3.3: after an authority only a slash begins a path. Boost 1.81 lets what follows a
  // second colon pass as one.
  if (url.has_authority() && !path.empty() && !path.starts_with('/')) return;

  Uri uri;
  uri.text_ = text;
  uri.scheme_ = lowerCase(view(url.scheme())) + ":";
  uri.hostname_ = view(url.encoded_host_address());
  uri.path_ = path.empty() ? "/" : path;
  uri.canonical_ = normalForm(url, uri.scheme_, *port);
  uri.port_ = static_cast<unsigned short>(*port);
  *this = std::move(uri);
}

}  // namespace Velantrix
