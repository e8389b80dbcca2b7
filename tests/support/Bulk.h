// Certificates and CRLs that nobody signed, with one part that fills megabytes. They are put together
// octet by octet: a builder that decodes what it has made would cost more than what is measured.
#pragma once

#include <string>
#include <string_view>

namespace Velantrix::Test::Bulk {

using namespace std::string_literals;

/// One element of DER.
inline std::string element(int tag, std::string_view content) {
  std::string out(1, static_cast<char>(tag));
  if (content.size() < 0x80) {
    out += static_cast<char>(content.size());
  } else {
    out += '\x84';
    for (int shift = 24; shift >= 0; shift -= 8) {
      out += static_cast<char>((content.size() >> static_cast<unsigned>(shift)) & 0xffU);
    }
  }
  out += content;
  return out;
}

inline std::string sequence(std::string_view content) { return element(0x30, content); }

inline std::string repeated(std::string_view piece, std::size_t octets) {
  std::string out;
  out.reserve(octets + piece.size());
  while (out.size() < octets) out += piece;
  return out;
}

/// A name of one common name.
inline std::string name(std::string_view commonName) {
  return sequence(element(0x31, sequence("\x06\x03\x55\x04\x03"s + element(0x0c, commonName))));
}

/// An extension of id-ce; `last` is the last octet of its type.
inline std::string extension(int last, std::string_view value) {
  return sequence("\x06\x03\x55\x1d"s + static_cast<char>(last) + element(0x04, value));
}

inline const std::string kAlgorithm = "\x30\x05\x06\x03\x2b\x65\x70"s;  // Ed25519
inline const std::string kNoSignature = element(0x03, std::string(65, '\0'));
inline const std::string kFrom = element(0x17, "200101000000Z");
inline const std::string kTo = element(0x17, "490101000000Z");

/// @param issuer     a name
/// @param extensions all of them, end to end
inline std::string certificate(const std::string& issuer, const std::string& extensions) {
  const std::string key = sequence(kAlgorithm + element(0x03, std::string(33, '\0')));
  return sequence(sequence("\xa0\x03\x02\x01\x02\x02\x01\x05"s + kAlgorithm + issuer +
                           sequence(kFrom + kTo) + name("leaf") + key +
                           element(0xa3, sequence(extensions))) +
                  kAlgorithm + kNoSignature);
}

/// @param extensions all of them, end to end
/// @param entries    all of them, end to end; none when empty
inline std::string crl(const std::string& extensions, const std::string& entries = {}) {
  return sequence(sequence("\x02\x01\x01"s + kAlgorithm + name("ca") + kFrom + kTo +
                           (entries.empty() ? entries : sequence(entries)) +
                           element(0xa0, sequence(extensions))) +
                  kAlgorithm + kNoSignature);
}

}  // namespace Velantrix::Test::Bulk
