// The lines that stand before the PEM block in a file of a hash directory and say what it was
// written for. Readers of PEM pass over them.
//
//   URI: http://ca.example/ca.crl
//   Expires: 1795132800
//   -----BEGIN X509 CRL-----
//
//   URI: http://ca.example/ca.crl
//   Expires: 1795132800
//   ETag: "5f3-61a"
//   Last-Modified: Tue, 17 Nov 2026 08:00:00 GMT
//   Fetched: 1795046400
//   -----BEGIN X509 CRL-----
//
//   Email: person@example.com
//   -----BEGIN CERTIFICATE-----
#pragma once

#include <velantrix/EmailAddress.h>
#include <velantrix/Time.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

// Keys of file names have 32 bits and can be made to collide, so the file says in full whom or what
// it is about.
struct HashFileHeader {
  // A longer validator is not kept.
  static constexpr std::size_t kMaximumValidator = 256;
  // No header is longer: a URI has at most 64 KiB, normal form included.
  static constexpr std::size_t kMaximumSize =
      std::size_t{3} * 64 * 1024 + 2 * kMaximumValidator + 160;

  // What the host said of the CRL beside it (RFC 9110, 8.8), and when. Each may be missing.
  struct Notes {
    std::string etag = {};
    std::string lastModified = {};
    std::optional<Time> fetched = {};
  };

  // What the CRL was fetched from, in normal form.
  std::optional<std::string_view> uri;
  // When the CRL runs out, in seconds since the epoch: known without decoding the CRL.
  std::optional<Time> expires;
  // What the host said beside it; none that may not be kept.
  std::optional<std::string_view> etag;
  std::optional<std::string_view> lastModified;
  // When the host last said that it has just this CRL.
  std::optional<Time> fetched;
  // Whom the certificate was stored for, as `emailText()` writes it.
  std::optional<std::string_view> email;
  // How many octets all of these lines have.
  std::size_t size = 0;

  // Reads what stands at the beginning of a file; borrows from `content`.
  static HashFileHeader parse(std::string_view content);
  static std::string text(const std::string& canonicalURI, const Time& expires);
  // With lines for those notes that there are and that may be kept.
  static std::string text(const std::string& canonicalURI, const Time& expires, const Notes& notes);
  static std::string text(const EmailAddress& address);

  // Whether what a host said may stand in a header: some printable ASCII characters, and no begin of
  // a PEM block among them, for which a reader that cuts a long line into pieces might take one.
  static bool isKept(std::string_view validator) noexcept;

  // The address as one word of visible ASCII characters: others stand as %HH, and '%' does too. A
  // reader that cuts a long line into pieces takes none of them for the begin of a PEM block, which
  // has a blank. An address that is too long for any mailbox is "sha256:" and its digest; there is
  // no '@' in that. Different addresses have different texts; a null one has none.
  static std::string emailText(const EmailAddress& address);
};

}  // namespace Velantrix::Crypto::PKX509
