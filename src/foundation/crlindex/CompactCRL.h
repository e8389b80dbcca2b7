// A CRL as the octets that were signed and an index over its entries.
//
//   Octets der = readOctets(path);
//   const std::unique_ptr<const CompactCRL> crl = CompactCRL::read(der);
//   if (crl == nullptr) ...  // X509_CRL has to be made of it; `der` is as it was
//   const CompactCRL::Found found = crl->find(certificate);
//   if (found.entry != nullptr) use(X509_REVOKED_get0_revocationDate(found.entry.get()));
//
// OpenSSL's X509_CRL takes some six times the octets and twenty times the time, and sorts the entries when
// one is looked for. Nothing is made for an entry here: what it says is decoded when it is found.
#pragma once

#include "foundation/crlindex/SerialIndex.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto {

/// Immutable, and may be read by several threads at once.
///
/// What is taken is what `d2i_X509_CRL` takes to the last octet and encodes again as it was, and what its
/// object answers is answered here. It is less than OpenSSL takes: DER only (X.690, 10 and 11), entries
/// as `readCRLEntry` wants them, certificate issuers (5.3.3) that can be read and are not too many.
class CompactCRL {
 public:
  /// An entry, as `X509_CRL_get0_by_cert` finds it.
  struct Found {
    Owned<X509_REVOKED> entry;  ///< null where the certificate is not listed
    bool removed = false;       ///< its reason is removeFromCRL, which is OpenSSL's answer 2
  };

  /// Takes the octets over, which are neither copied nor changed.
  /// @return null, with @p octets as they were, for what is not taken
  /// @throws std::bad_alloc
  static std::unique_ptr<const CompactCRL> read(Octets& octets);

  CompactCRL(const CompactCRL&) = delete;
  CompactCRL& operator=(const CompactCRL&) = delete;
  ~CompactCRL();

  const Octets& octets() const noexcept { return octets_; }
  /// The element that is signed, with its header.
  std::string_view toBeSigned() const noexcept { return toBeSigned_; }
  /// All of the CRL but its entries; borrowed, never null. What is signed is not in there. It is not
  /// const because OpenSSL's functions want it so.
  X509_CRL* head() const noexcept { return head_.get(); }
  /// The version, where it is written, and the algorithm that is signed (5.1.2.1 and 5.1.2.2).
  bool hasVersion() const noexcept { return hasVersion_; }
  const X509_ALGOR* signedAlgorithm() const noexcept { return algorithm_.get(); }

  std::size_t entryCount() const noexcept { return entryCount_; }
  /// The entry of @p certificate, by its issuer and serial number; the first where there are several.
  /// @throws std::bad_alloc
  Found find(const X509* certificate) const;
  /// The same for a serial number. Without an issuer it is that of the CRL.
  Found find(const ASN1_INTEGER* serial, const X509_NAME* issuer) const;

  /// What entries may have. Of each the first that has it is known.
  enum Trait { kExtensions, kRemoval, kCertificateIssuer, kUnhandledCritical, kTraits };
  bool has(Trait trait) const noexcept { return first_[trait] != 0; }
  /// Where it stands; entries are compared by it.
  std::uint32_t firstWith(Trait trait) const noexcept { return first_[trait]; }
  /// The entry that begins there, never null: it has been read before.
  /// @throws std::bad_alloc
  Owned<X509_REVOKED> entryAt(std::uint32_t position) const;

  /// Where the entry behind the one at @p position begins; 0 where it is the last.
  std::uint32_t after(std::uint32_t position) const noexcept;

  /// What all of it takes, in octets. What OpenSSL made of the head and of certificate issuers is guessed.
  std::size_t memory() const noexcept;

 private:
  // From an entry on, certificates are of another issuer (5.3.3).
  struct Run {
    std::uint32_t begin;
    std::uint32_t issuer;  // 0: of the CRL; others count from 1
  };
  struct Parts;
  class Builder;

  CompactCRL() = default;

  SerialKey keyAt(std::uint32_t position) const noexcept;
  std::uint32_t issuerAt(std::uint32_t position) const noexcept;
  std::vector<std::uint32_t> issuersNamed(const X509_NAME* name) const;

  Octets octets_;
  std::string_view toBeSigned_;
  Owned<X509_CRL> head_;
  Owned<X509_ALGOR> algorithm_;
  bool hasVersion_ = false;
  std::size_t entryCount_ = 0;
  std::uint32_t entriesEnd_ = 0;
  std::size_t decodedOctets_ = 0;      // of what OpenSSL has made objects of
  std::uint32_t first_[kTraits] = {};  // 0: none
  std::vector<Run> runs_;
  std::vector<Owned<GENERAL_NAMES>> issuers_;
  SerialIndex index_;
};

}  // namespace Velantrix::Crypto
