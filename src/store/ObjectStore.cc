#include "foundation/base/Fail.h"
#include "foundation/base/Log.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/model/GeneralNames.h"
#include "foundation/model/RelativeName.h"
#include "foundation/openssl/CRLScore.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "store/AskMethod.h"
#include "store/LookupMemory.h"
#include "store/SharedDirectoryLookup.h"
#include "store/StoreRecord.h"

#include <pkx509/HashDirLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/URILookup.h>
#include <velantrix/Assert.h>
#include <velantrix/Exception.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Kind = SourceRecord::Source::Kind;
using Wanted = SourceRecord::Source::Wanted;

// Callers know a failed construction by this line.
constexpr unsigned int kNoStoreLine = 18;

// A CRL is looked for by names of these types.
bool isLookedFor(const GENERAL_NAME* name) {
  return name->type == GEN_DIRNAME || name->type == GEN_URI;
}

// Whether `candidate` may have issued `crl`; `score` tells how far the match went.
bool mayHaveIssued(const RefCertificate& candidate, const RefCertificateRevocationList& crl,
                   unsigned int& score) {
  const CertificateRevocationListInfo& info = crl->crlInfo();
  if (info.issuer() != candidate->subject()) return false;
  score = kScoreIssuerName;
  const RefAuthorityKeyIdentifier aki = info.authorityKeyIdentifier();
  if (!aki.empty() && aki->keyId() != candidate->subjectKeyIdentifier()) return false;
  score |= kScoreAuthorityKeyId;
  return (candidate->keyUsage() & KU_CRL_SIGN) != 0;
}

}  // namespace

RefObjectStore::RefObjectStore(const std::string& name, int fileType)
    : Ref<ObjectStore>(new ObjectStore(name, fileType)) {}

RefObjectStore::operator x509_store_st*() const {
  const ObjectStore* const px = get();
  PKX509_ASSERT(px != 0);
  return px->native();
}

void ObjectStore::StoreDeleter::operator()(X509_STORE* store) const noexcept {
  X509_STORE_free(store);
}

ObjectStore::ObjectStore(const std::string& directory, int type)
    : x509Store(X509_STORE_new()), name(directory), fileType(type) {
  if (x509Store == nullptr || !StoreRecord::attach(x509Store.get())) {
    throw Exception("X509::ObjectStore", Exception::kFailure, "ObjectStore", kNoStoreLine);
  }
  // A directory that cannot be attached leaves a store that trusts nothing of it.
  static_cast<void>(add(name, fileType));
}

ObjectStore::~ObjectStore() {
  const NoCancellation untilReturn;
  for (LookupMethod* const method : pointedFrom) method->objectStore = nullptr;
  // OpenSSL shuts its lookups down while every lookup method is still held. What a method throws
  // then has nowhere to go.
  VerificationRun shelter{VerificationRun::Shelter{}};
  x509Store.reset();
  if (shelter.hasParked()) {
    log(kPriorityDebug, "X509::ObjectStore: a lookup method failed while its store was freed");
  }
  spareCertificate = RefCertificate();
  objectList.clear();
  methodList.clear();
}

RefObjectStore ObjectStore::clone() const {
  RefObjectStore copy(name, fileType);
  for (const RefLookupMethod& method : methodList) copy->add(method);
  return copy;
}

int ObjectStore::add(const std::string& dir, int type) {
  const ErrorScope errors;
  StoreRecord* const record = StoreRecord::of(x509Store.get());
  PKX509_ASSERT(record != nullptr);
  record->addDirectory(dir, type);
  return addDirectories(x509Store.get(), dir, type);
}

void ObjectStore::add(const RefLookupMethod& method) {
  std::list<RefLookupMethod> entry(1, method);  // made first, so that nothing can fail half-way
  X509_LOOKUP* fresh = nullptr;
  // An empty handle is listed too; the first query stops the process and so names the mistake.
  if (!method.empty()) {
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(x509Store.get(), method);
    if (lookup == nullptr) {
      fail({"X509::ObjectStore", "ObjectStore"}, "A lookup method could not be registered.");
    }
    StoreRecord* const record = StoreRecord::of(x509Store.get());
    PKX509_ASSERT(record != nullptr);
    if (record->find(lookup) == nullptr) {
      record->add(lookup, method.method_);
      fresh = lookup;
    }
  }
  methodList.splice(methodList.end(), entry);
  // OpenSSL does not call a table's init by itself. A source that cannot start yet may answer
  // later, so its result decides nothing here; one that throws stays attached, since OpenSSL has no
  // way to take a lookup out of a store.
  if (fresh != nullptr) static_cast<void>(X509_LOOKUP_init(fresh));
}

void ObjectStore::add(const RefObject& object) { objectList.push_back(object); }

void ObjectStore::add(const std::list<RefCertificate>& certificates) {
  for (const RefCertificate& certificate : certificates) add(RefObject(certificate));
}

void ObjectStore::find(const DistinguishedName& subject, std::list<RefCertificate>& out) const {
  for (const RefLookupMethod& method : methodList) {
    LookupMethod& source = *method;
    askOnce(&source, subject, out, [&](std::list<RefCertificate>& found) {
      ask(source, subject, found);
      return true;
    });
  }
}

void ObjectStore::find(const DistinguishedName& issuer,
                       std::list<RefCertificateRevocationList>& out) const {
  for (const RefLookupMethod& method : methodList) {
    LookupMethod& source = *method;
    if (!VerificationRun::admitLookup()) {
      return tellRefusal(Kind::kLookupMethod, Wanted::kCRLs, source.methodName());
    }
    std::list<RefCertificateRevocationList> found;
    askOnce(&source, issuer, found, [&](std::list<RefCertificateRevocationList>& answer) {
      ask(source, issuer, answer);
      return true;
    });
    for (const RefCertificateRevocationList& crl : found) {
      objectList.emplace_back(crl);
      out.push_back(crl);
    }
  }
}

void ObjectStore::find(const Uri& uri, std::list<RefCertificateRevocationList>& out) const {
  if (uri.isNull()) return;
  if (!VerificationRun::admitLookup()) {
    return tellRefusal(Kind::kCRLServer, Wanted::kCRLs, FetchRecord::placeOf(uri));
  }
  URILookup().find(uri, out);
  // The whole list is cached again, elements of earlier finds included: whoever asks by several
  // URIs in a row relies on the store knowing all of them.
  for (const RefCertificateRevocationList& crl : out) objectList.emplace_back(crl);
}

void ObjectStore::find(const GeneralName& generalName,
                       std::list<RefCertificateRevocationList>& out) const {
  switch (generalName.type()) {
    case GEN_DIRNAME:
      find(generalName.dn(), out);
      break;
    case GEN_URI:
      find(generalName.uri(), out);
      break;
    default:
      break;
  }
}

void ObjectStore::find(const RefCertificate& certificate, const RefCRLDistributionPoint& point,
                       std::list<RefCertificateRevocationList>& out) const {
  if (point.empty()) return;
  const RefCRLDistributionPointName pointName = point->distributionPointName();
  const std::shared_ptr<const GENERAL_NAMES> issuers = point->nativeIssuers();
  if (pointName.empty() || pointName->type() == CRLDistributionPointName::kFullName) {
    const auto places = pointName.empty() ? issuers : pointName->nativeFullName();
    for (int i = 0; i < countOf(places); ++i) {
      if (isLookedFor(sk_GENERAL_NAME_value(places.get(), i))) find(*generalName(places, i), out);
    }
    return;
  }
  const std::string relative = pointName->relativeName();
  // Nobody to ask: a name under an issuer's of kilobytes takes milliseconds to make.
  if (relative.empty() || methodList.empty()) return;
  if (countOf(issuers) == 0) {
    const DistinguishedName& issuer = certificate->issuer();
    if (issuer.empty() || !VerificationRun::mayLookUp()) return;
    const DistinguishedName full = completed(relative, issuer);
    if (!full.empty()) find(full, out);
    return;
  }
  for (int i = 0; i < countOf(issuers); ++i) {
    const RefGeneralName issuer = generalName(issuers, i);
    if (issuer->type() != GEN_DIRNAME) continue;
    if (!VerificationRun::mayLookUp()) return;
    find(completed(relative, issuer->dn()), out);
  }
}

const RefCertificate* ObjectStore::firstIssuer(const RefCertificateRevocationList& crl,
                                               const std::list<RefCertificate>& candidates,
                                               unsigned int& score) const {
  for (const RefCertificate& candidate : candidates) {
    if (mayHaveIssued(candidate, crl, score)) {
      objectList.emplace_back(candidate);
      return &objectList.back()->certificate;
    }
  }
  return nullptr;
}

const RefCertificate& ObjectStore::findIssuer(const RefCertificateRevocationList& crl,
                                              unsigned int& score) const {
  if (crl.empty()) return spareCertificate;
  for (const RefObject& object : objectList) {
    if (object->type == Object::TypeCertificate && mayHaveIssued(object->certificate, crl, score)) {
      return object->certificate;
    }
  }
  const DistinguishedName& issuer = crl->crlInfo().issuer();
  {
    std::list<RefCertificate> candidates;
    findInDirectory(issuer, candidates);
    if (const RefCertificate* const found = firstIssuer(crl, candidates, score)) return *found;
  }
  std::list<RefCertificate> candidates;
  find(issuer, candidates);
  if (const RefCertificate* const found = firstIssuer(crl, candidates, score)) return *found;
  return spareCertificate;
}

void ObjectStore::findAll(const DistinguishedName& subject, std::list<RefCertificate>& out) const {
  for (const RefObject& object : objectList) {
    if (object->type == Object::TypeCertificate && object->certificate->subject() == subject) {
      out.push_back(object->certificate);
    }
  }
  std::list<RefCertificate> found;
  findInDirectory(subject, found);
  // Files are found by a hash of the name, which others can have as well.
  found.remove_if([&](const RefCertificate& other) { return other->subject() != subject; });
  out.splice(out.end(), found);
  find(subject, out);
}

// OpenSSL serves the same directory, but by one certificate a name; here all of them count.
void ObjectStore::findInDirectory(const DistinguishedName& subject,
                                  std::list<RefCertificate>& out) const {
  askOnce(name, subject, out, [&](std::list<RefCertificate>& found) {
    HashDirLookupMethod(name).getBySubject(subject, found);
    return true;
  });
}

void ObjectStore::remember(LookupMethod* method) { pointedFrom.insert(method); }

void ObjectStore::forget(LookupMethod* method) noexcept { pointedFrom.erase(method); }

}  // namespace Velantrix::Crypto::PKX509
