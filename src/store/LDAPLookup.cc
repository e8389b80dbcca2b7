#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"
#include "foundation/net/ldap/LDAPSearch.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/VerificationRun.h"
#include "store/AskMethod.h"
#include "store/LookupMemory.h"
#include "store/TolerantReading.h"

#include <pkx509/LDAPLookup.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <exception>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr unsigned int kAnswerBound = 30;  // seconds

// RFC 4523, 2. They are transferred in binary (RFC 4522), which servers insist on.
std::list<LDAPAttributeType> attributeTypes(Object::Type type) {
  switch (static_cast<int>(type)) {
    case Object::TypeCertificate:
      return {LDAPAttributeType("userCertificate;binary"),
              LDAPAttributeType("cACertificate;binary")};
    case Object::TypeCRL:
      return {LDAPAttributeType("certificateRevocationList;binary"),
              LDAPAttributeType("deltaRevocationList;binary")};
    case Object::TypeCrossCertificatePair:
      return {LDAPAttributeType("crossCertificatePair;binary")};
    default:
      throw Exception("s_addAttributes", Exception::kFailure, "LDAPLookup", __LINE__);
  }
}

struct Value {
  Buffer octets;
  ObjectOrigins::Where origin;  // the entry
};

ObjectOrigins::Where originOf(const std::string& server, const LDAPSearchResultEntry& entry) {
  const std::string slash = server.ends_with('/') ? "" : "/";
  return {VerificationReport::Origin::Kind::kLDAP, server + slash + entry.name()};
}

// Appends every value that the directory has for that kind of object under the base. An empty
// filter takes every entry that has one; without a base as well that would be the whole directory,
// which nobody asks for but a certificate without a name. False when a limit has cut the answer short.
bool s_addAttributes(const LDAPLookupMethod::Config& config, Object::Type type,
                     const std::string& base, const std::string& filter, std::list<Value>& out) {
  const std::list<LDAPAttributeType> types = attributeTypes(type);
  if (base.empty() && filter.empty()) return true;
  const NoCancellation untilReturn;
  LDAPConnection connection(config.server, false);
  // Meant this way round: a configured name stands for searching without a bind.
  if (config.bindDn.empty()) {
    connection.bind(config.bindDn, config.bindPassword, LDAPConnection::BindSimple);
  }
  LDAPSearch::Parameter parameter(base);
  parameter.filter(filter);
  parameter.scope(LDAP_SCOPE_SUBTREE);
  for (const LDAPAttributeType& attribute : types) parameter.add(attribute);

  LDAPSearch search(connection, parameter);
  search.send();
  search.wait(kAnswerBound);
  // The CRL that was cut off may be the one that revokes.
  if (!search.result().complete()) {
    TolerantReading::leftOut();
    if (type == Object::TypeCRL) Shortfall::note();
  }
  for (const LDAPSearchResultEntry& entry : search.result().searchResultEntries()) {
    if (entry.attributes().empty()) continue;
    const ObjectOrigins::Where origin = originOf(config.server->uri(), entry);
    for (const LDAPAttribute& attribute : entry.attributes().attributes()) {
      for (const Buffer& value : attribute.binaryValue()) out.push_back({value, origin});
    }
  }
  return search.result().complete();
}

bool admits(const Buffer& value) {
  if (VerificationRun::admitDecoding(value.length()) && VerificationRun::admitStep()) return true;
  TolerantReading::leftOut();
  SourceUse::leftOut();
  return false;
}

template <class Read>
void readValue(const Read& read) {
  readOneOf("an LDAP value", [&] {
    try {
      read();
    } catch (const std::exception& failure) {
      SourceUse::malformed(failure);
      throw;
    }
  });
}

void readCertificates(const std::list<Value>& values, std::list<RefCertificate>& out) {
  for (const Value& value : values) {
    if (!admits(value.octets)) return;
    readValue([&] {
      std::list<RefCertificate> found;
      CertificateFactory::read(value.octets, found);
      noteOrigins(found.begin(), found.end(), value.origin);
      out.splice(out.end(), found);
    });
  }
}

// A value that holds something else than a CRL gives none.
void readCRLs(const std::list<Value>& values, std::list<RefObject>& out) {
  for (const Value& value : values) {
    if (!admits(value.octets)) return;
    readValue([&] {
      const RefCertificateRevocationList crl = CertificateRevocationListFactory::read(value.octets);
      if (crl.empty()) return;
      ObjectOrigins::note(crl, value.origin);
      out.emplace_back(crl);
    });
  }
}

void readObjects(Object::Type type, const std::list<Value>& values, std::list<RefObject>& out) {
  if (type == Object::TypeCertificate) {
    std::list<RefCertificate> certificates;
    readCertificates(values, certificates);
    for (const RefCertificate& certificate : certificates) out.emplace_back(certificate);
  } else if (type == Object::TypeCRL) {
    readCRLs(values, out);
  } else {
    for (const Value& value : values) out.emplace_back(RefCrossCertificatePair(value.octets));
  }
}

// OpenSSL's look-ups, while it builds a path, are made for anybody; those of the revocation check only
// for whom connections are opened.
enum class AskedBy { kPath, kRevocation };

using Source = SourceRecord::Source;

Source::Wanted wantedOf(Object::Type type) noexcept {
  return type == Object::TypeCRL ? Source::Wanted::kCRLs : Source::Wanted::kCertificates;
}

// A server has neither user nor query in its URI.
std::string_view placeOf(const LDAPLookupMethod::Config& config) noexcept {
  return config.server.empty() ? std::string_view() : std::string_view(config.server->uri());
}

// Has the server searched, and tells of it.
void ask(const LDAPLookupMethod::Config& config, Object::Type type, const std::string& base,
         std::list<RefObject>& found, SourceUse& use) {
  if (base.empty()) use.drop();
  use.during([&] {
    std::list<Value> values;
    const bool whole = s_addAttributes(config, type, base, "", values);
    readObjects(type, values, found);
    use.found(found.size());
    if (!whole) use.cut("a limit, the server's or ours, has cut the answer short");
  });
}

// What the directory has under the base. A verification asks once for each base and kind, whichever
// of the queries below comes first.
std::list<RefObject> objectsBelow(const LookupMethod& method,
                                  const LDAPLookupMethod::Config& config, Object::Type type,
                                  const std::string& base, AskedBy asker) {
  std::list<RefObject> objects;
  askOnce(&method, std::to_string(type) + ' ' + base, objects, [&](std::list<RefObject>& found) {
    SourceUse use(Source::Kind::kLDAP, wantedOf(type), placeOf(config));
    if (asker == AskedBy::kRevocation && !connectionAdmitted()) {
      use.refused(notAdmitted());
      TolerantReading::leftOut();
      return false;
    }
    ask(config, type, base, found, use);
    // Where something was passed over, whoever reads as ever is to hear of it.
    const TolerantReading* const tolerant = TolerantReading::current();
    return tolerant == nullptr || !tolerant->cut();
  });
  return objects;
}

// OpenSSL says no to what it has already, which is none of our business.
void addTo(X509_STORE* store, const RefCertificate& certificate) {
  if (!certificate.empty()) static_cast<void>(X509_STORE_add_cert(store, certificate));
}

void addTo(ObjectStore& store, const RefObject& object) {
  const ErrorScope errors;
  store.add(object);
  addTo(store.native(), object->certificate);
  if (!object->crl.empty()) static_cast<void>(X509_STORE_add_crl(store.native(), object->crl));
  if (!object->crossPair.empty()) {
    addTo(store.native(), object->crossPair->forward());
    addTo(store.native(), object->crossPair->reverse());
  }
}

}  // namespace

LDAPLookupMethod::LDAPLookupMethod() : LookupMethod("LDAPLookupMethod") { trustSource(false); }

LDAPLookupMethod::LDAPLookupMethod(const Config& configured)
    : LookupMethod("LDAPLookupMethod"),
      server(configured.server),
      bindDn(configured.bindDn),
      bindPassword(configured.bindPassword) {
  trustSource(false);
}

LDAPLookupMethod::~LDAPLookupMethod() = default;

RefObject LDAPLookupMethod::getBySubject(Object::Type type, const DistinguishedName& subject) {
  return getBySubject(type, subject.asString());
}

void LDAPLookupMethod::getBySubject(const DistinguishedName& subject,
                                    std::list<RefCertificate>& out) {
  getBySubject(subject.asString(), out);
}

void LDAPLookupMethod::getBySubject(const DistinguishedName& issuer,
                                    std::list<RefCertificateRevocationList>& out) {
  getBySubject(issuer.asString(), out);
}

RefObject LDAPLookupMethod::getBySubject(Object::Type type, const std::string& base) {
  const std::list<RefObject> objects = objectsBelow(*this, config(), type, base, AskedBy::kPath);
  if (objects.empty()) return RefObject();
  if (objectStore != nullptr) {
    for (const RefObject& object : objects) addTo(*objectStore, object);
  }
  return objects.front();
}

void LDAPLookupMethod::getBySubject(const std::string& base, std::list<RefCertificate>& out) {
  for (const RefObject& object :
       objectsBelow(*this, config(), Object::TypeCertificate, base, AskedBy::kRevocation)) {
    out.push_back(object->certificate);
  }
}

void LDAPLookupMethod::getBySubject(const std::string& base,
                                    std::list<RefCertificateRevocationList>& out) {
  for (const RefObject& object :
       objectsBelow(*this, config(), Object::TypeCRL, base, AskedBy::kRevocation)) {
    out.push_back(object->crl);
  }
}

void LDAPLookupMethod::getByEmailAddress(const std::string& base, const std::string& address,
                                         std::list<RefCertificate>& out) {
  std::list<Value> values;
  s_addAttributes(config(), Object::TypeCertificate, base, "(mail=" + address + ")", values);
  readCertificates(values, out);
}

RefObject LDAPLookupMethod::getByFingerPrint(Object::Type /*type*/, const Buffer& /*fingerPrint*/) {
  throw Exception("LDAPLookupMethod::getByFingerPrint: not implemented", Exception::kFailure,
                  "LDAPLookup", __LINE__);
}

RefObject LDAPLookupMethod::getByIssuerSerial(Object::Type /*type*/,
                                              const DistinguishedName& /*issuer*/,
                                              const ASN1::Integer& /*serial*/) {
  throw Exception("LDAPLookupMethod::getByIssuerSerial: not implemented", Exception::kFailure,
                  "LDAPLookup", __LINE__);
}

}  // namespace Velantrix::Crypto::PKX509
