#include "foundation/model/CRLForm.h"

#include "foundation/crlindex/CompactCRL.h"
#include "foundation/model/StrictTime.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::string_view contentOf(const ASN1_STRING* string) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
          static_cast<std::size_t>(ASN1_STRING_length(string))};
}

// What stands at the beginning of what is signed. OpenSSL 3.0 does not say what the algorithm there is,
// and not whether a version is v1 or absent, so its encoding is read.
struct Head {
  bool hasVersion = false;
  Owned<X509_ALGOR> algorithm;
};

Head headOf(X509_CRL* crl) {
  Head head;
  unsigned char* encoded = nullptr;
  const int length = i2d_X509_CRL(crl, &encoded);
  const OwnedMemory<unsigned char> owner(encoded);
  if (length <= 0) return head;
  const unsigned char* const end = encoded + length;
  const auto list = derHeader(encoded, end);
  const auto toBeSigned = list ? derHeader(list->content, end) : std::nullopt;
  if (!toBeSigned.has_value()) return head;
  const unsigned char* position = toBeSigned->content;
  const auto first = derHeader(position, end);
  head.hasVersion = first.has_value() && first->is(V_ASN1_INTEGER);
  if (head.hasVersion) position = first->next;
  if (position != nullptr) head.algorithm = decodeNext(d2i_X509_ALGOR, position, end);
  return head;
}

// 5.3.1: the DER of the reason removeFromCRL.
bool isRemoval(X509_EXTENSION* extension) {
  using namespace std::string_view_literals;
  return OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_crl_reason &&
         contentOf(X509_EXTENSION_get_data(extension)) == "\x0a\x01\x08"sv;
}

bool isReadable(X509_EXTENSION* certificateIssuer) {
  const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(certificateIssuer);
  return decodeWhole(d2i_GENERAL_NAMES, ASN1_STRING_get0_data(value),
                     static_cast<std::size_t>(ASN1_STRING_length(value))) != nullptr;
}

// At most one extension of that kind, and one that OpenSSL can read.
template <class T>
bool isReadable(const X509_REVOKED* entry, int nid) {
  int found = 0;
  const Owned<T> value(static_cast<T*>(X509_REVOKED_get_ext_d2i(entry, nid, &found, nullptr)));
  return value != nullptr || found == -1;
}

struct ListKind {
  bool v1;
  bool delta;
  bool indirect;
};

const char* brokenRuleOfExtension(X509_EXTENSION* extension, const ListKind& kind) {
  if (!kind.delta && isRemoval(extension)) {
    return "removeFromCRL in a list that is no delta CRL (5.3.1)";
  }
  if (OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_certificate_issuer) {
    if (!kind.indirect) return "an entry of another issuer in a list that is not indirect (5.3.3)";
    if (!isReadable(extension)) return "an entry's issuer that cannot be read (5.3.3)";
  }
  return nullptr;
}

const char* brokenRuleOfEntry(const X509_REVOKED* entry, const ListKind& kind) {
  if (!isStrictTime(X509_REVOKED_get0_revocationDate(entry))) return "a revocation date (5.1.2.6)";
  const STACK_OF(X509_EXTENSION)* const extensions = X509_REVOKED_get0_extensions(entry);
  if (extensions == nullptr) return nullptr;
  if (kind.v1) return "extensions of an entry in a v1 list (5.1)";
  for (int i = 0; i < X509v3_get_ext_count(extensions); ++i) {
    if (const char* const rule = brokenRuleOfExtension(X509v3_get_ext(extensions, i), kind)) {
      return rule;
    }
  }
  // OpenSSL looks at the entries up to the first one that is not so. Of those behind it, it knows neither
  // whom they are about nor which of them take a certificate off.
  if ((kind.delta || kind.indirect) && !isReadable<ASN1_ENUMERATED>(entry, NID_crl_reason)) {
    return "a reason that cannot be read (5.3.1)";
  }
  if (!isReadable<GENERAL_NAMES>(entry, NID_certificate_issuer)) {
    return "an entry's issuer that cannot be read (5.3.3)";
  }
  return nullptr;
}

const char* brokenRuleOfScope(const ISSUING_DIST_POINT& idp) {
  const int only = (idp.onlyuser > 0) + (idp.onlyCA > 0) + (idp.onlyattr > 0);
  if (only > 1) return "an issuing distribution point for more than one kind (5.2.5)";
  if (only == 0 && idp.indirectCRL <= 0 && idp.distpoint == nullptr &&
      idp.onlysomereasons == nullptr) {
    return "an empty issuing distribution point (5.2.5)";
  }
  return nullptr;
}

// `signedAlgorithm` is borrowed, and null where it cannot be read.
const char* brokenRuleOfHead(X509_CRL* crl, bool v1, bool hasVersion,
                             const X509_ALGOR* signedAlgorithm) {
  const X509_ALGOR* outer = nullptr;
  X509_CRL_get0_signature(crl, nullptr, &outer);
  if (signedAlgorithm == nullptr || X509_ALGOR_cmp(outer, signedAlgorithm) != 0) {
    return "two algorithms for one signature (5.1.1.2)";
  }
  const STACK_OF(X509_EXTENSION)* const extensions = X509_CRL_get0_extensions(crl);
  if (v1 && extensions != nullptr) return "extensions in a v1 list (5.1)";
  if (v1 ? hasVersion : X509_CRL_get_version(crl) != X509_CRL_VERSION_2) {
    return "a version other than v2 (5.1)";
  }
  if (X509_NAME_entry_count(X509_CRL_get_issuer(crl)) == 0) return "no issuer (5.1.2.3)";
  // Either type is to be read, whatever the year (5.1.2.4).
  if (!isStrictTime(X509_CRL_get0_lastUpdate(crl))) return "thisUpdate (5.1.2.4)";
  const ASN1_TIME* const nextUpdate = X509_CRL_get0_nextUpdate(crl);
  if (nextUpdate != nullptr && !isStrictTime(nextUpdate)) return "nextUpdate (5.1.2.5)";
  if (extensions != nullptr && X509v3_get_ext_count(extensions) == 0) {
    return "an empty list of extensions (5.1.2.7)";
  }
  return nullptr;
}

// What the extensions say, whether the entries are to follow or not; `kind` is what they are held to.
const char* brokenRuleOfExtensions(X509_CRL* crl, ListKind& kind) {
  const Owned<ISSUING_DIST_POINT> idp(static_cast<ISSUING_DIST_POINT*>(
      X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, nullptr, nullptr)));
  if (idp != nullptr) {
    if (const char* const rule = brokenRuleOfScope(*idp)) return rule;
  }
  const Owned<ASN1_INTEGER> number(
      static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr)));
  if (number != nullptr && ASN1_STRING_type(number.get()) == V_ASN1_NEG_INTEGER) {
    return "a CRL number below 0 (5.2.3)";
  }
  kind.delta = X509_CRL_get_ext_by_NID(crl, NID_delta_crl, -1) >= 0;
  kind.indirect = idp != nullptr && idp->indirectCRL > 0;
  return nullptr;
}

bool isV1(const X509_CRL* crl) { return X509_CRL_get_version(crl) == X509_CRL_VERSION_1; }

}  // namespace

const char* brokenRuleOf(X509_CRL* crl) {
  const ErrorScope errors;
  const Head head = headOf(crl);
  ListKind kind{.v1 = isV1(crl), .delta = false, .indirect = false};
  if (const char* const rule =
          brokenRuleOfHead(crl, kind.v1, head.hasVersion, head.algorithm.get())) {
    return rule;
  }
  if (const char* const rule = brokenRuleOfExtensions(crl, kind)) return rule;

  const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(crl);
  if (entries == nullptr) return nullptr;
  if (sk_X509_REVOKED_num(entries) == 0) return "an empty list of entries (5.1.2.6)";
  for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
    if (const char* const rule = brokenRuleOfEntry(sk_X509_REVOKED_value(entries, i), kind)) {
      return rule;
    }
  }
  return nullptr;
}

const char* brokenRuleOf(const CompactCRL& crl) {
  const ErrorScope errors;
  ListKind kind{.v1 = isV1(crl.head()), .delta = false, .indirect = false};
  if (const char* const rule =
          brokenRuleOfHead(crl.head(), kind.v1, crl.hasVersion(), crl.signedAlgorithm())) {
    return rule;
  }
  if (const char* const rule = brokenRuleOfExtensions(crl.head(), kind)) return rule;

  // Dates, reasons and issuers have been read, and no list of entries is empty.
  std::uint32_t first = 0;
  const auto wrong = [&](CompactCRL::Trait trait) {
    if (crl.has(trait)) first = std::min(first - 1, crl.firstWith(trait) - 1) + 1;
  };
  if (kind.v1) wrong(CompactCRL::kExtensions);
  if (!kind.delta) wrong(CompactCRL::kRemoval);
  if (!kind.indirect) wrong(CompactCRL::kCertificateIssuer);
  return first == 0 ? nullptr : brokenRuleOfEntry(crl.entryAt(first).get(), kind);
}

}  // namespace Velantrix::Crypto::PKX509
