/// @file
/// Uniform resource identifiers (RFC 3986), as certificates name them: where a CRL is found, where
/// an OCSP responder listens.
///
/// @code
///   const Uri uri("HTTP://Example.com:80/a/../crl%2ecrl");
///   uri.scheme();         // "http:"
///   uri.hostname();       // "Example.com"
///   uri.canonicalized();  // "http://example.com/crl.crl"
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <string>

namespace Velantrix {

/// An absolute URI, or null.
///
/// The text usually comes out of a certificate, from a stranger: nothing about it is trusted, and a
/// text that is not an absolute URI gives a null value, never an exception. Parsing is strict:
/// blanks, control characters and bytes outside ASCII are not part of a URI. Which schemes can be
/// used, and whether there is a host, is for the user of the URI to check.
///
/// A plain value; it may be read from several threads at once.
class PKX509_EXPORT Uri {
 public:
  /// The null URI.
  Uri() = default;

  /// Null when @p text is not an absolute URI (RFC 3986, 3: a scheme is needed), when its port is
  /// above 65535 or when it is longer than 64 KiB.
  explicit Uri(const std::string& text);

  bool isNull() const noexcept { return text_.empty(); }

  /// The scheme in lower case, with its colon: "http:".
  const std::string& scheme() const noexcept { return scheme_; }

  /// The host as the URI spells it, IPv6 addresses without their brackets. Empty when there is
  /// none. User information is not part of it.
  const std::string& hostname() const noexcept { return hostname_; }

  /// The port that the URI names; 0 when it names none (the scheme's default is not filled in).
  unsigned short port() const noexcept { return port_; }

  /// The path as the URI holds it, without query and fragment; "/" when it is empty.
  const std::string& path() const noexcept { return path_; }

  /// The text as given to the constructor; empty for the null URI.
  const std::string& asString() const noexcept { return text_; }

  /// The normal form, which serves as a key: RFC 3986, 6.2.2 (scheme and host in lower case,
  /// percent-encodings in upper case and undone where they need not be, dot segments removed) and
  /// of 6.2.3 the scheme's default port removed and an empty path after a host made "/". Dots in a
  /// path that begins with no slash ("urn:", "mailto:") are text and stay. Empty for the null URI.
  const std::string& canonicalized() const noexcept { return canonical_; }

  /// Two URIs are equal when their normal forms are; the null URI equals only itself.
  bool operator==(const Uri& other) const noexcept { return canonical_ == other.canonical_; }
  bool operator!=(const Uri& other) const noexcept { return !(*this == other); }

 private:
  std::string text_;
  std::string scheme_;
  std::string hostname_;
  std::string path_;
  std::string canonical_;
  unsigned short port_ = 0;
};

}  // namespace Velantrix
