// The octets as the values of the extensions that hold general names and distribution points.
#include "Fuzz.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/CrossCertificatePair.h>
#include <velantrix/IssuingDistributionPoint.h>

namespace Velantrix::Fuzz::ExtensionsTarget {
namespace {

using namespace Crypto::PKX509;
using Crypto::Owned;

template <class T>
Owned<T> decoded(T* (*d2i)(T**, const unsigned char**, long), const std::uint8_t* data,
                 std::size_t size) {
  Owned<T> value(d2i(nullptr, &data, static_cast<long>(size)));
  ERR_clear_error();
  return value;
}

void checkGeneralName(const GeneralName& name) {
  PKX509_ASSERT(name == name);
  if (name.type() != GEN_DIRNAME) PKX509_ASSERT(name.dn().empty());
  if (name.type() != GEN_URI) PKX509_ASSERT(name.uri().isNull());
  checkName(name.dn());
  RefGeneralName copy;
  PKX509_ASSERT(accepted([&] { copy = RefGeneralName(name.native()); }));
  PKX509_ASSERT(*copy.get() == name && name == *copy.get());
}

void checkGeneralNames(const std::list<RefGeneralName>& names) {
  for (const RefGeneralName& name : names) checkGeneralName(*name.get());
}

void checkPointName(const CRLDistributionPointName& name) {
  checkGeneralNames(name.fullName());
  bool hasDirectoryName = false;
  for (const RefGeneralName& one : name.fullName()) {
    if (one->type() != GEN_DIRNAME) continue;
    hasDirectoryName = true;
    PKX509_ASSERT(name == one->dn());
  }
  if (!hasDirectoryName) PKX509_ASSERT(name != DistinguishedName());
  PKX509_ASSERT((name == name) == (name.type() == CRLDistributionPointName::kRelativeName ||
                                   !name.fullName().empty()));
  if (name.type() == CRLDistributionPointName::kFullName) {
    PKX509_ASSERT(name.relativeName().empty());
    return;
  }
  PKX509_ASSERT(name.fullName().empty());
  // A relative name is completed as text, and that must be a name again.
  std::string relative;
  if (!accepted([&] { relative = name.relativeName(); }) || relative.empty()) return;
  const DistinguishedName alone(relative);
  const X509_NAME_ENTRY* const last =
      X509_NAME_get_entry(alone.native(), X509_NAME_entry_count(alone.native()) - 1);
  PKX509_ASSERT(last != nullptr && X509_NAME_ENTRY_set(last) == 0);  // a single RDN
  DistinguishedName completed;
  PKX509_ASSERT(accepted([&] { completed = DistinguishedName(relative + ",CN=Issuer"); }));
  PKX509_ASSERT(!completed.empty());
  PKX509_ASSERT(completed.asString() == relative + ",CN=Issuer");
  checkName(completed);
}

void readNames(const std::uint8_t* data, std::size_t size) {
  const auto names = decoded(d2i_GENERAL_NAMES, data, size);
  if (names == nullptr) return;
  std::list<RefGeneralName> read;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* const native = sk_GENERAL_NAME_value(names.get(), i);
    accepted([&] { read.emplace_back(native); });
  }
  checkGeneralNames(read);
}

void readPoints(const std::uint8_t* data, std::size_t size) {
  const auto points = decoded(d2i_CRL_DIST_POINTS, data, size);
  if (points == nullptr) return;
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
    RefCRLDistributionPoint point;
    const DIST_POINT* const native = sk_DIST_POINT_value(points.get(), i);
    if (!accepted([&] { point = RefCRLDistributionPoint(native); })) continue;
    PKX509_ASSERT((point->reasons() & ~kAllReasons) == 0);
    if (native->reasons == nullptr) PKX509_ASSERT(point->reasons() == kAllReasons);
    checkGeneralNames(point->issuers());
    PKX509_ASSERT(point->distributionPointName().empty() == (native->distpoint == nullptr));
    if (!point->distributionPointName().empty()) {
      checkPointName(*point->distributionPointName().get());
    }
  }
}

void readScope(const std::uint8_t* data, std::size_t size) {
  const auto native = decoded(d2i_ISSUING_DIST_POINT, data, size);
  if (native == nullptr) return;
  RefIssuingDistributionPoint scope;
  if (!accepted([&] { scope = RefIssuingDistributionPoint(native.get()); })) return;
  PKX509_ASSERT((scope->reasons() & ~kAllReasons) == 0);
  PKX509_ASSERT(scope->onlyUser() == (native->onlyuser > 0));
  PKX509_ASSERT(scope->onlyCA() == (native->onlyCA > 0));
  PKX509_ASSERT(scope->onlyAttr() == (native->onlyattr > 0));
  PKX509_ASSERT(scope->indirectCRL() == (native->indirectCRL > 0));
  if (!scope->distributionPointName().empty()) {
    checkPointName(*scope->distributionPointName().get());
  }
}

void readAccess(const std::uint8_t* data, std::size_t size) {
  const Owned<ASN1_OCTET_STRING> value(ASN1_OCTET_STRING_new());
  PKX509_ASSERT(ASN1_OCTET_STRING_set(value.get(), data, static_cast<int>(size)) == 1);
  const Owned<X509_EXTENSION> native(
      X509_EXTENSION_create_by_NID(nullptr, NID_info_access, 0, value.get()));
  PKX509_ASSERT(native != nullptr);
  RefExtension extension;
  PKX509_ASSERT(accepted([&] { extension = RefExtension(native.get()); }));
  PKX509_ASSERT(extension->oid() == "1.3.6.1.5.5.7.1.1");
  RefAuthorityInformationAccess access;
  if (!accepted([&] { access = RefAuthorityInformationAccess(extension); })) return;
  checkGeneralNames(access->ocspGeneralNames());
}

void readPair(const std::uint8_t* data, std::size_t size) {
  RefCrossCertificatePair pair;
  if (!accepted([&] { pair = RefCrossCertificatePair(buffer(data, size)); })) return;
  PKX509_ASSERT(!pair.empty());
  for (const RefCertificate& certificate : {pair->forward(), pair->reverse()}) {
    if (certificate.empty()) continue;
    checkName(certificate->subject());
    checkName(certificate->issuer());
  }
}

}  // namespace

PKX509_FUZZ_TARGET(extensions) {
  begin();
  readNames(data, size);
  readPoints(data, size);
  readScope(data, size);
  readAccess(data, size);
  readPair(data, size);
  return 0;
}

}  // namespace Velantrix::Fuzz::ExtensionsTarget
