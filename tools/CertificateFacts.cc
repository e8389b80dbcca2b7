#include "FactCollector.h"
#include "FactValues.h"
#include "Facts.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/AuthorityInformationAccess.h>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

namespace Velantrix::Tool {

using namespace Crypto;
using namespace Crypto::PKX509;

namespace {

// One extension, decoded by OpenSSL; null when the certificate has none.
template <class T>
Owned<T> decode(X509* certificate, int nid) {
  const ErrorScope errors;
  int critical = 0;
  Owned<T> decoded(static_cast<T*>(X509_get_ext_d2i(certificate, nid, &critical, nullptr)));
  if (decoded == nullptr && critical != -1) {
    throw std::runtime_error(
        (critical == -2 ? "extension stands twice: " : "extension cannot be decoded: ") +
        std::string(OBJ_nid2ln(nid)));
  }
  return decoded;
}

std::string keyAlgorithm(X509* certificate) {
  ASN1_OBJECT* algorithm = nullptr;  // borrowed
  std::array<char, 128> text{};
  if (X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, nullptr,
                             X509_get_X509_PUBKEY(certificate)) != 1 ||
      OBJ_obj2txt(text.data(), static_cast<int>(text.size()), algorithm, 0) <= 0) {
    throw std::runtime_error("public key cannot be read");
  }
  return text.data();
}

// Null without a limit. OpenSSL's own X509_get_pathlen cannot tell that from a broken one.
Facts pathLength(X509* certificate) {
  const auto constraints = decode<BASIC_CONSTRAINTS>(certificate, NID_basic_constraints);
  if (constraints == nullptr || constraints->pathlen == nullptr) return {};
  const ErrorScope errors;
  std::int64_t length = 0;
  if (ASN1_INTEGER_get_int64(&length, constraints->pathlen) != 1 || length < 0) {
    throw std::runtime_error("path length is out of range");
  }
  return length;
}

Facts keyUsage(const RefCertificate& certificate) {
  // Every bit set would hide that there is no restriction.
  const bool restricted = !certificate->find(ASN1::RefObjectIdentifier("2.5.29.15")).empty();
  return restricted ? keyUsageFact(certificate->keyUsage()) : Facts();
}

Facts distributionPoints(const RefCertificate& certificate) {
  Facts::Array points;
  for (const RefCRLDistributionPoint& point : certificate->crlDistributionPoints()) {
    Facts fact = pointNameFact(point->distributionPointName());
    fact["reasons"] = reasonsFact(point->reasons());
    fact["crlIssuers"] = namesFact(point->nativeIssuers());
    points.push_back(std::move(fact));
  }
  return points;
}

Facts ocspLocations(const RefCertificate& certificate) {
  const RefAuthorityInformationAccess access(
      certificate->find(ASN1::RefObjectIdentifier("1.3.6.1.5.5.7.1.1")));
  Facts::Array names;
  if (access.empty()) return names;
  std::size_t position = 0;
  for (RefGeneralName name = access->nextOCSPGeneralName(position); !name.empty();
       name = access->nextOCSPGeneralName(position)) {
    names.push_back(nameFact(name));
  }
  return names;
}

// Those of the subject alternative name and of the subject. They are sorted, because OpenSSL's
// order is not that of the certificate anyway and differs between its versions.
Facts emailAddresses(X509* certificate) {
  static_cast<void>(decode<GENERAL_NAMES>(certificate, NID_subject_alt_name));
  const ErrorScope errors;
  const Owned<STACK_OF(OPENSSL_STRING)> addresses(X509_get1_email(certificate));
  std::set<std::string> texts;
  for (int i = 0; i < sk_OPENSSL_STRING_num(addresses.get()); ++i) {
    texts.emplace(sk_OPENSSL_STRING_value(addresses.get(), i));
  }
  return Facts::Array(texts.begin(), texts.end());
}

}  // namespace

Facts factsOf(const std::string& file, const RefCertificate& certificate) {
  X509* const native = certificate;  // borrowed
  FactCollector facts(file, "certificate");
  facts.add("subject", [&] { return certificate->subject().asString(); });
  facts.add("issuer", [&] { return certificate->issuer().asString(); });
  facts.add("serial", [&] { return numberFact(certificate->serialNumber()); });
  facts.add("notBefore",
            [&] { return timeFact(ASN1::RefGeneralizedTime(X509_get0_notBefore(native), true)); });
  facts.add("notAfter",
            [&] { return timeFact(ASN1::RefGeneralizedTime(X509_get0_notAfter(native), true)); });
  facts.add("keyAlgorithm", [&] { return keyAlgorithm(native); });
  facts.add("keyBits", [&] { return EVP_PKEY_get_bits(certificate->key()->keyData()); });
  facts.add("subjectKeyIdentifier",
            [&] { return octetsFact(certificate->subjectKeyIdentifier()); });
  facts.add("authorityKeyIdentifier",
            [&] { return keyIdFact(certificate->authorityKeyIdentifier()); });
  facts.add("keyUsage", [&] { return keyUsage(certificate); });
  facts.add("ca", [&] { return certificate->isCACert(); });
  facts.add("pathLength", [&] { return pathLength(native); });
  facts.add("selfSigned", [&] { return certificate->isSelfSigned(); });
  facts.add("crlDistributionPoints", [&] { return distributionPoints(certificate); });
  facts.add("ocsp", [&] { return ocspLocations(certificate); });
  facts.add("emails", [&] { return emailAddresses(native); });
  return facts.take();
}

}  // namespace Velantrix::Tool
