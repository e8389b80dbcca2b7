/// @file
/// X.500 names: their text, their hash, their equality.
///
/// @code
///   DistinguishedName issuer(X509_get_issuer_name(x));
///   if (issuer == ca->subject()) log(issuer.asString());    // CN=Root,O=Example,C=US
///   DistinguishedName point("CN=CRL1," + issuer.asString());
///   if (point.empty()) ...                                  // the text was no name
/// @endcode
///
/// **Text.** RFC 4514: the most specific RDN first, "," between RDNs and "+" inside one, without
/// blanks. A type is OpenSSL's short name where that is a name RFC 4514 allows and OpenSSL maps
/// back to the same type, and otherwise its dotted numbers, followed by the value as "#" and the
/// hexadecimal DER. UTF-8 stays readable; controls (C0, DEL, C1), bidirectional controls, what is
/// invisible (U+200B to U+200D, U+2060 to U+206F, U+FEFF, tags), line and paragraph separators and
/// octets that are not UTF-8 are printed as `\HH`, so that a name can neither forge a log line nor
/// hide or reorder what a reader sees. What is printed can be read back to an equal name.
///
/// **Equality.** OpenSSL's canonical comparison (RFC 5280, 7.1): string types, the case of ASCII
/// letters, runs of blanks and the order inside one RDN do not count.
///
/// **Threads.** Values may be read and copied by several threads at once.
#pragma once

#include <velantrix/Export.h>

#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// A name; a value whose copies share one immutable OpenSSL object.
class PKX509_EXPORT DistinguishedName {
 public:
  /// The empty name, which has no RDNs.
  DistinguishedName() = default;
  /// Copies @p name, which stays the caller's; null makes the empty name.
  /// @throws Exception when OpenSSL cannot encode and decode it, for example because a value is not
  ///         valid in its string type
  explicit DistinguishedName(const X509_name_st* name);
  /// Shares @p name, which nobody changes any more; null makes the empty name. A shared pointer
  /// that points into a certificate and owns that certificate makes a name without a copy.
  /// @throws Exception as above
  explicit DistinguishedName(std::shared_ptr<const X509_NAME> name);
  /// Reads what `asString()` prints, and the usual variants of it: blanks around separators, types
  /// by OpenSSL's short or long name or as numbers, in any case of letters where RFC 4514 names the
  /// type. Text that is no name makes the empty name; callers test `empty()` before they search.
  explicit DistinguishedName(const std::string& text);

  /// True without RDNs.
  bool empty() const noexcept;

  /// The text form; see the top of the file. Its length is bounded only by the name's.
  std::string asString() const;

  /// OpenSSL's `X509_NAME_hash_ex`: the key under which `openssl rehash` files certificates and
  /// CRLs.
  /// @throws Exception when the digest is not available
  std::uint32_t hash() const;

  bool operator==(const DistinguishedName& other) const noexcept;
  bool operator!=(const DistinguishedName& other) const noexcept { return !(*this == other); }

  /// Borrowed, never null; lives as long as a copy of this value does.
  /// @throws Exception when there is no memory for the first empty name that is asked
  const X509_NAME* native() const;

 private:
  std::shared_ptr<const X509_NAME> name_;
};

}  // namespace Velantrix::Crypto::PKX509
