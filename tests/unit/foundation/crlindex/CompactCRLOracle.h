// Holds a compact CRL against the X509_CRL that OpenSSL makes of the same octets.
#pragma once

#include "foundation/base/Octets.h"
#include "foundation/crlindex/CompactCRL.h"
#include "foundation/model/CRLForm.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

inline Octets octetsOf(std::string_view text) {
  const unsigned char* const begin = Crypto::octets(text);
  return Octets(begin, begin + text.size());
}

class CompactCRLOracle {
 public:
  /// What differs; empty where nothing does. At most @p most entries are looked up.
  static std::string difference(std::string_view der, int most = 40) {
    Octets octets = octetsOf(der);
    const std::unique_ptr<const Crypto::CompactCRL> compact = Crypto::CompactCRL::read(octets);
    const Crypto::ErrorScope errors;
    const Owned<X509_CRL> native =
        Crypto::decodeWhole(d2i_X509_CRL, Crypto::octets(der), der.size());
    if (compact == nullptr) {
      if (textOf(octets) != der) return "octets that were not taken";
      return native != nullptr && isPlain(native.get(), der) ? "well-formed, and not taken" : "";
    }
    if (native == nullptr) return "taken, and not by OpenSSL";
    return CompactCRLOracle(*compact, native.get(), der, most).difference();
  }

 private:
  template <class T>
  using Owned = Crypto::Owned<T>;
  using Compact = Crypto::CompactCRL;

  struct EntryForm {
    bool exotic = false;  // more than RFC 5280 lets it be
    bool has[Compact::kTraits] = {};
  };

  CompactCRLOracle(const Compact& compact, X509_CRL* native, std::string_view der, int most)
      : compact_(compact), native_(native), der_(der), most_(most) {}

  static std::string_view textOf(const Octets& octets) {
    return {reinterpret_cast<const char*>(octets.data()), octets.size()};
  }

  template <class T>
  static std::string encoded(int (*i2d)(const T*, unsigned char**), const T* object) {
    return object == nullptr ? "none" : Crypto::encodeWhole(i2d, object);
  }
  template <class T>
  static bool isEqual(int (*i2d)(const T*, unsigned char**), const T* a, const T* b) {
    return encoded(i2d, a) == encoded(i2d, b);
  }
  static bool isEqual(const ASN1_STRING* a, const ASN1_STRING* b) {
    if (a == nullptr || b == nullptr) return a == b;
    return ASN1_STRING_cmp(a, b) == 0 && a->flags == b->flags;
  }

  // OpenSSL takes any octet for TRUE, and writes it again.
  static bool isCanonical(X509_EXTENSION* extension) {
    const Owned<X509_EXTENSION> again(X509_EXTENSION_create_by_OBJ(
        nullptr, X509_EXTENSION_get_object(extension), X509_EXTENSION_get_critical(extension),
        X509_EXTENSION_get_data(extension)));
    return isEqual<X509_EXTENSION>(i2d_X509_EXTENSION, again.get(), extension);
  }

  static EntryForm formOf(const X509_REVOKED* entry) {
    EntryForm form;
    const STACK_OF(X509_EXTENSION)* const extensions = X509_REVOKED_get0_extensions(entry);
    form.has[Compact::kExtensions] = extensions != nullptr;
    int found = 0;
    const Owned<ASN1_ENUMERATED> reason(static_cast<ASN1_ENUMERATED*>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, &found, nullptr)));
    form.exotic = reason == nullptr && found != -1;
    if (reason != nullptr) {
      const long value = ASN1_ENUMERATED_get(reason.get());
      form.exotic = value < 0 || value > 10;
      form.has[Compact::kRemoval] = value == 8;
    }
    for (int i = 0; i < X509v3_get_ext_count(extensions); ++i) {
      X509_EXTENSION* const extension = X509v3_get_ext(extensions, i);
      const int nid = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
      const int size = ASN1_STRING_length(X509_EXTENSION_get_data(extension));
      if (nid == NID_certificate_issuer) form.has[Compact::kCertificateIssuer] = true;
      if (nid == NID_certificate_issuer && size > 4000) form.exotic = true;
      if (nid == NID_crl_reason && size != 3) form.exotic = true;
      if (!isCanonical(extension)) form.exotic = true;
      if (X509_EXTENSION_get_critical(extension) > 0 && nid != NID_certificate_issuer) {
        form.has[Compact::kUnhandledCritical] = true;
      }
    }
    const ASN1_INTEGER* const serial = X509_REVOKED_get0_serialNumber(entry);
    form.exotic = form.exotic || ASN1_STRING_length(serial) > 20 ||
                  (extensions != nullptr && X509v3_get_ext_count(extensions) == 0);
    return form;
  }

  // DER, RFC 5280, and not too much of anything.
  static bool isPlain(X509_CRL* native, std::string_view der) {
    if (der.size() > 60000 || encoded<X509_CRL>(i2d_X509_CRL, native) != der) return false;
    if (Crypto::PKX509::brokenRuleOf(native) != nullptr) return false;
    const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(native);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
      if (formOf(sk_X509_REVOKED_value(entries, i)).exotic) return false;
    }
    // From here on it is written as OpenSSL would write it, and not as it was read.
    const Owned<X509_CRL> copy(X509_CRL_dup(native));
    unsigned char* again = nullptr;
    const int size = i2d_re_X509_CRL_tbs(copy.get(), &again);
    const Crypto::OwnedMemory<unsigned char> owner(again);
    return size > 0 && encoded<X509_CRL>(i2d_X509_CRL, copy.get()) == der;
  }

  std::string difference() {
    if (textOf(compact_.octets()) != der_) return "octets";
    if (encoded<X509_CRL>(i2d_X509_CRL, native_) != der_) return "not written again as it was";
    if (const std::string head = headDifference(); !head.empty()) return head;
    const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(native_);
    const int count = std::max(sk_X509_REVOKED_num(entries), 0);
    if (compact_.entryCount() != static_cast<std::size_t>(count)) return "number of entries";
    std::vector<const X509_REVOKED*> inOrder;
    for (int i = 0; i < count; ++i) inOrder.push_back(sk_X509_REVOKED_value(entries, i));
    if (const std::string trait = traitDifference(inOrder); !trait.empty()) return trait;
    return lookupDifference(inOrder);
  }

  std::string headDifference() const {
    X509_CRL* const head = compact_.head();
    if (X509_CRL_get_REVOKED(head) != nullptr) return "entries in the head";
    if (X509_CRL_get_version(head) != X509_CRL_get_version(native_)) return "version";
    if (!isEqual(i2d_X509_NAME, X509_CRL_get_issuer(head), X509_CRL_get_issuer(native_))) {
      return "issuer";
    }
    if (!isEqual(X509_CRL_get0_lastUpdate(head), X509_CRL_get0_lastUpdate(native_)) ||
        !isEqual(X509_CRL_get0_nextUpdate(head), X509_CRL_get0_nextUpdate(native_))) {
      return "times";
    }
    const STACK_OF(X509_EXTENSION)* const a = X509_CRL_get0_extensions(head);
    const STACK_OF(X509_EXTENSION)* const b = X509_CRL_get0_extensions(native_);
    if ((a == nullptr) != (b == nullptr) || X509v3_get_ext_count(a) != X509v3_get_ext_count(b)) {
      return "number of extensions";
    }
    for (int i = 0; i < X509v3_get_ext_count(a); ++i) {
      if (!isEqual<X509_EXTENSION>(i2d_X509_EXTENSION, X509v3_get_ext(a, i),
                                   X509v3_get_ext(b, i))) {
        return "extension";
      }
    }
    const ASN1_BIT_STRING* bits[2] = {};
    const X509_ALGOR* algorithms[2] = {};
    X509_CRL_get0_signature(head, &bits[0], &algorithms[0]);
    X509_CRL_get0_signature(native_, &bits[1], &algorithms[1]);
    if (!isEqual(bits[0], bits[1]) || X509_ALGOR_cmp(algorithms[0], algorithms[1]) != 0) {
      return "signature";
    }
    return signedDifference();
  }

  // What is signed, where OpenSSL's own reader of headers finds it.
  std::string signedDifference() const {
    const unsigned char* const end = Crypto::octets(der_) + der_.size();
    const auto whole = Crypto::derHeader(Crypto::octets(der_), end);
    const auto toBeSigned = Crypto::derHeader(whole->content, end);
    const std::string_view part(reinterpret_cast<const char*>(whole->content),
                                static_cast<std::size_t>(toBeSigned->next - whole->content));
    if (compact_.toBeSigned() != part) return "signed part";
    const auto first = Crypto::derHeader(toBeSigned->content, end);
    if (compact_.hasVersion() != first->is(V_ASN1_INTEGER)) return "presence of a version";
    const unsigned char* position = first->is(V_ASN1_INTEGER) ? first->next : toBeSigned->content;
    const Owned<X509_ALGOR> algorithm = Crypto::decodeNext(d2i_X509_ALGOR, position, end);
    return X509_ALGOR_cmp(algorithm.get(), compact_.signedAlgorithm()) == 0 ? ""
                                                                            : "signed algorithm";
  }

  std::string traitDifference(const std::vector<const X509_REVOKED*>& entries) const {
    const X509_REVOKED* first[Compact::kTraits] = {};
    for (const X509_REVOKED* const entry : entries) {
      const EntryForm form = formOf(entry);
      for (int i = 0; i < Compact::kTraits; ++i) {
        if (form.has[i] && first[i] == nullptr) first[i] = entry;
      }
    }
    for (int i = 0; i < Compact::kTraits; ++i) {
      const auto trait = static_cast<Compact::Trait>(i);
      if (compact_.has(trait) != (first[i] != nullptr)) return "trait " + std::to_string(i);
      if (first[i] != nullptr &&
          !isEqual<X509_REVOKED>(i2d_X509_REVOKED,
                                 compact_.entryAt(compact_.firstWith(trait)).get(), first[i])) {
        return "first with trait " + std::to_string(i);
      }
    }
    return {};
  }

  // Names that entries may be about.
  std::vector<Owned<X509_NAME>> names(const std::vector<const X509_REVOKED*>& entries) const {
    std::vector<Owned<X509_NAME>> all;
    all.emplace_back(X509_NAME_new());
    all.emplace_back(X509_NAME_dup(X509_CRL_get_issuer(native_)));
    for (const X509_REVOKED* const entry : entries) {
      const Owned<GENERAL_NAMES> issuer(static_cast<GENERAL_NAMES*>(
          X509_REVOKED_get_ext_d2i(entry, NID_certificate_issuer, nullptr, nullptr)));
      for (int i = 0; i < sk_GENERAL_NAME_num(issuer.get()); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(issuer.get(), i);
        if (name->type != GEN_DIRNAME || all.size() > 8) continue;
        all.emplace_back(X509_NAME_dup(name->d.directoryName));
      }
    }
    return all;
  }

  std::string lookupDifference(const std::vector<const X509_REVOKED*>& entries) const {
    const std::vector<Owned<X509_NAME>> issuers = names(entries);
    std::vector<Owned<ASN1_INTEGER>> serials;
    const std::size_t step = 1 + entries.size() / static_cast<std::size_t>(most_);
    for (std::size_t i = 0; i < entries.size(); i += step) {
      serials.emplace_back(ASN1_INTEGER_dup(X509_REVOKED_get0_serialNumber(entries[i])));
    }
    for (const long other : {0L, 1L, -1L, 128L, -128L, 0x7a7a7a7aL}) {
      serials.emplace_back(ASN1_INTEGER_new());
      ASN1_INTEGER_set(serials.back().get(), other);
    }
    for (const Owned<ASN1_INTEGER>& serial : serials) {
      X509_REVOKED* expected = nullptr;
      const int answer = X509_CRL_get0_by_serial(native_, &expected, serial.get());
      if (!isAnswer(compact_.find(serial.get(), nullptr), answer, expected)) {
        return "look-up by serial number";
      }
      for (const Owned<X509_NAME>& issuer : issuers) {
        if (!isAnswerFor(issuer.get(), serial.get())) return "look-up by certificate";
      }
    }
    return {};
  }

  bool isAnswerFor(const X509_NAME* issuer, ASN1_INTEGER* serial) const {
    const Owned<X509> certificate(X509_new());
    X509_set_issuer_name(certificate.get(), issuer);
    X509_set_serialNumber(certificate.get(), serial);
    X509_REVOKED* expected = nullptr;
    const int answer = X509_CRL_get0_by_cert(native_, &expected, certificate.get());
    return isAnswer(compact_.find(certificate.get()), answer, expected);
  }

  static bool isAnswer(const Compact::Found& found, int answer, const X509_REVOKED* expected) {
    constexpr int kRemoved = 2;
    if (answer == 0) return found.entry == nullptr && !found.removed;
    return found.entry != nullptr && found.removed == (answer == kRemoved) &&
           isEqual<X509_REVOKED>(i2d_X509_REVOKED, found.entry.get(), expected);
  }

  const Compact& compact_;
  X509_CRL* native_;
  std::string_view der_;
  int most_;
};

}  // namespace Velantrix::Test
