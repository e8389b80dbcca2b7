// What is read of a CRL without OpenSSL's object of it being made.
//
//   const ListedEntry entry = entryFor(*crl.get(), certificate);
//   if (entry && !entry.removed()) use(X509_REVOKED_get0_revocationDate(entry.get()));
#pragma once

#include "foundation/crlindex/CompactCRL.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/CertificateRevocationList.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

/// The way into the two forms.
struct CRLParts {
  /// @throws Exception when the CRL is broken
  static RefCertificateRevocationList make(std::unique_ptr<const CompactCRL> compact);
  /// Null where the CRL was made of OpenSSL's object.
  static const CompactCRL* compactOf(const CertificateRevocationList& crl) noexcept;
  /// OpenSSL's object; null as long as nobody has asked for it.
  static X509_CRL* nativeOf(const CertificateRevocationList& crl) noexcept {
    return crl.crl_.get();
  }
};

/// All of the CRL but its entries, and what is signed; borrowed, never null. There is no entry to be looked
/// up in it.
X509_CRL* headOf(const CertificateRevocationList& crl) noexcept;

/// The content of an extension of the head, borrowed; empty where it is absent.
std::string_view extensionOf(const CertificateRevocationList& crl, int nid) noexcept;

/// An entry that has been looked up, or none.
class ListedEntry {
 public:
  ListedEntry() = default;
  explicit ListedEntry(CompactCRL::Found found) noexcept
      : own_(std::move(found.entry)), entry_(own_.get()), removed_(found.removed) {}
  /// One that belongs to a CRL that outlives it.
  ListedEntry(const X509_REVOKED* entry, bool removed) noexcept
      : entry_(entry), removed_(removed) {}

  explicit operator bool() const noexcept { return entry_ != nullptr; }
  const X509_REVOKED* get() const noexcept { return entry_; }
  /// Whether its reason is removeFromCRL.
  bool removed() const noexcept { return removed_; }

 private:
  Owned<X509_REVOKED> own_;
  const X509_REVOKED* entry_ = nullptr;
  bool removed_ = false;
};

/// What `X509_CRL_get0_by_cert` finds, which takes certificate issuers into account (RFC 5280, 5.3.3). The CRL
/// has to outlive it.
/// @throws std::bad_alloc
ListedEntry entryFor(const CertificateRevocationList& crl, const X509* certificate);

/// Shows @p visit the entries, in their order, as long as it returns true. Those that stand before the first one
/// with a critical extension may be left out.
/// @throws std::bad_alloc
void visitCriticalEntries(const CertificateRevocationList& crl,
                          const std::function<bool(const X509_REVOKED*)>& visit);

/// The size of its DER; 0 where OpenSSL cannot write it.
std::size_t derSizeOf(const CertificateRevocationList& crl);
/// Whether that is its DER.
bool isDerOf(std::string_view der, const CertificateRevocationList& crl);

/// Whether both are one object, or stand for one of OpenSSL's.
bool isIdentical(const CertificateRevocationList& a, const CertificateRevocationList& b) noexcept;
/// Whether both are one CRL, octet for octet.
bool isSame(const CertificateRevocationList& a, const CertificateRevocationList& b);
/// An order for what `isSame` tells apart.
bool isOrderedBefore(const CertificateRevocationList& a, const CertificateRevocationList& b);

}  // namespace Velantrix::Crypto::PKX509
