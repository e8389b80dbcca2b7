// The lines that stand before the PEM block in a file of a fetched CRL. Readers of PEM pass over
// them.
//
//   URI: http://ca.example/ca.crl
//   Expires: 1795132800
//   -----BEGIN X509 CRL-----
#pragma once

#include <velantrix/Time.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

struct CRLFileHeader {
  // No header is longer: a URI has at most 64 KiB, normal form included.
  static constexpr std::size_t kMaximumSize = std::size_t{3} * 64 * 1024 + 64;

  // What the CRL was fetched from, in normal form. Keys of file names have 32 bits and can be made
  // to collide, so the file says it in full.
  std::optional<std::string_view> uri;
  // When the CRL runs out, in seconds since the epoch: known without decoding the CRL.
  std::optional<Time> expires;

  // Reads what stands at the beginning of a file; borrows from `content`.
  static CRLFileHeader parse(std::string_view content);
  static std::string text(const std::string& canonicalURI, const Time& expires);
};

}  // namespace Velantrix::Crypto::PKX509
