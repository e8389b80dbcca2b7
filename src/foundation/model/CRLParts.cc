#include "foundation/model/CRLParts.h"

#include "foundation/openssl/Der.h"

#include <functional>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::string_view textOf(const Octets& octets) noexcept {
  return {reinterpret_cast<const char*>(octets.data()), octets.size()};
}

int compare(std::size_t a, std::size_t b) noexcept { return a < b ? -1 : a > b ? 1 : 0; }

// Whether they are more or less than these octets; less where OpenSSL cannot write it.
int compare(std::string_view der, const CertificateRevocationList& crl) {
  if (const int order = compare(der.size(), derSizeOf(crl)); order != 0) return order;
  const CompactCRL* const compact = CRLParts::compactOf(crl);
  if (compact != nullptr) return der.compare(textOf(compact->octets()));
  const X509_CRL* const native = CRLParts::nativeOf(crl);
  return der.compare(encodeWhole(i2d_X509_CRL, native));
}

// By size first, so that what is long is hardly ever compared.
int compare(const CertificateRevocationList& a, const CertificateRevocationList& b) {
  if (isIdentical(a, b)) return 0;
  const std::size_t size = derSizeOf(a);
  if (const int order = compare(size, derSizeOf(b)); order != 0) return order;
  if (size == 0) return std::less<>()(&a, &b) ? -1 : 1;  // OpenSSL cannot write them
  if (const CompactCRL* const compact = CRLParts::compactOf(a)) {
    return compare(textOf(compact->octets()), b);
  }
  const X509_CRL* const native = CRLParts::nativeOf(a);
  return compare(encodeWhole(i2d_X509_CRL, native), b);
}

}  // namespace

X509_CRL* headOf(const CertificateRevocationList& crl) noexcept {
  const CompactCRL* const compact = CRLParts::compactOf(crl);
  return compact != nullptr ? compact->head() : CRLParts::nativeOf(crl);
}

std::string_view extensionOf(const CertificateRevocationList& crl, int nid) noexcept {
  X509_CRL* const head = headOf(crl);
  const int index = X509_CRL_get_ext_by_NID(head, nid, -1);
  if (index < 0) return {};
  const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(X509_CRL_get_ext(head, index));
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
          static_cast<std::size_t>(ASN1_STRING_length(value))};
}

ListedEntry entryFor(const CertificateRevocationList& crl, const X509* certificate) {
  if (const CompactCRL* const compact = CRLParts::compactOf(crl)) {
    return ListedEntry(compact->find(certificate));
  }
  constexpr int kRemoved = 2;     // OpenSSL's word for removeFromCRL
  X509_REVOKED* entry = nullptr;  // borrowed from the CRL
  const int found = X509_CRL_get0_by_cert(CRLParts::nativeOf(crl), &entry,
                                          const_cast<X509*>(certificate));  // it only reads
  return found == 0 ? ListedEntry() : ListedEntry(entry, found == kRemoved);
}

void visitCriticalEntries(const CertificateRevocationList& crl,
                          const std::function<bool(const X509_REVOKED*)>& visit) {
  if (const CompactCRL* const compact = CRLParts::compactOf(crl)) {
    std::uint32_t position = compact->firstWith(CompactCRL::kUnhandledCritical);
    while (position != 0 && visit(compact->entryAt(position).get())) {
      position = compact->after(position);
    }
    return;
  }
  const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(CRLParts::nativeOf(crl));
  for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
    if (!visit(sk_X509_REVOKED_value(entries, i))) return;
  }
}

std::size_t derSizeOf(const CertificateRevocationList& crl) {
  if (const CompactCRL* const compact = CRLParts::compactOf(crl)) return compact->octets().size();
  const int size = i2d_X509_CRL(CRLParts::nativeOf(crl), nullptr);
  return size < 0 ? 0 : static_cast<std::size_t>(size);
}

bool isDerOf(std::string_view der, const CertificateRevocationList& crl) {
  return !der.empty() && compare(der, crl) == 0;
}

bool isIdentical(const CertificateRevocationList& a, const CertificateRevocationList& b) noexcept {
  if (&a == &b) return true;
  const X509_CRL* const native = CRLParts::nativeOf(a);
  return native != nullptr && native == CRLParts::nativeOf(b);
}

bool isSame(const CertificateRevocationList& a, const CertificateRevocationList& b) {
  return compare(a, b) == 0;
}

bool isOrderedBefore(const CertificateRevocationList& a, const CertificateRevocationList& b) {
  return compare(a, b) < 0;
}

}  // namespace Velantrix::Crypto::PKX509
