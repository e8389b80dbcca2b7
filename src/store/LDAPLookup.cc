#include "foundation/base/NoCancellation.h"
#include "foundation/base/Shortfall.h"
#include "foundation/net/ldap/LDAPSearch.h"
#include "foundation/net/ldap/LDAPURI.h"
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

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <string_view>
#include <strings.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr std::chrono::seconds kAnswerBound{30};

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

// What a server is asked for, and what is to be made of its values.
struct Question {
  Object::Type type;
  LDAPSearch::Parameter search;
  std::string key;  // a verification asks equal ones once
};

// For every value of that kind under the base. An empty filter takes every entry that has one.
Question below(Object::Type type, const std::string& base, const std::string& filter) {
  Question question{type, LDAPSearch::Parameter(base), std::to_string(type) + ' ' + base};
  question.search.filter(filter);
  for (const LDAPAttributeType& attribute : attributeTypes(type)) question.search.add(attribute);
  return question;
}

// Of the attributes that hold CRLs (RFC 4523, 2) those that the URI names, else all of them.
std::list<LDAPAttributeType> crlAttributes(const LDAPURI& uri) {
  std::list<LDAPAttributeType> named;
  std::list<LDAPAttributeType> all;
  for (const std::string type :
       {"certificateRevocationList", "authorityRevocationList", "deltaRevocationList"}) {
    all.emplace_back(type + ";binary");
    const bool isNamed = std::any_of(
        uri.attributes.begin(), uri.attributes.end(), [&](const std::string& attribute) {
          // RFC 4512, 2.5: without regard to case.
          return ::strcasecmp(attribute.substr(0, attribute.find(';')).c_str(), type.c_str()) == 0;
        });
    if (isNamed) named.push_back(all.back());
  }
  return named.empty() ? all : named;
}

// RFC 5280, 4.2.1.13: without a host the client relies on "whatever a priori knowledge [it] might have
// to contact an appropriate server".
Question namedBy(const Uri& uri, const LDAPURI& wanted) {
  Question question{Object::TypeCRL, LDAPSearch::Parameter(wanted.base), "at " + uri.asString()};
  question.search.scope(wanted.scope);
  for (const LDAPAttributeType& attribute : crlAttributes(wanted)) question.search.add(attribute);
  // Entries without one of them would only use up the limits of the answer.
  if (!wanted.filter.empty()) {
    question.search.filter("(&" + question.search.filter() + wanted.filter + ")");
  }
  return question;
}

// Appends every value that the directory has. Without base and filter that would be the whole
// directory, which nobody asks for but a certificate without a name. False when a limit has cut the
// answer short.
bool s_addAttributes(const LDAPLookupMethod::Config& config, const Question& question,
                     std::list<Value>& out) {
  if (question.search.base().empty() && !question.search.hasOwnFilter()) return true;
  const NoCancellation untilReturn;
  LDAPConnection connection(config.server, false);
  // Meant this way round: a configured name stands for searching without a bind.
  if (config.bindDn.empty()) {
    connection.bind(config.bindDn, config.bindPassword, LDAPConnection::BindSimple);
  }
  LDAPSearch search(connection, question.search);
  search.send();
  search.wait(kAnswerBound);
  // The CRL that was cut off may be the one that revokes.
  if (!search.result().complete()) {
    TolerantReading::leftOut();
    if (question.type == Object::TypeCRL) Shortfall::note();
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
void ask(const LDAPLookupMethod::Config& config, const Question& question,
         std::list<RefObject>& found, SourceUse& use) {
  if (question.search.base().empty()) use.drop();
  use.during([&] {
    std::list<Value> values;
    const bool whole = s_addAttributes(config, question, values);
    readObjects(question.type, values, found);
    use.found(found.size());
    if (!whole) use.cut("a limit, the server's or ours, has cut the answer short");
  });
}

// What the directory has. A verification asks once for each base and kind, whichever of the queries
// below comes first, and once for each URI.
std::list<RefObject> objectsOf(const LookupMethod& method, const LDAPLookupMethod::Config& config,
                               const Question& question, AskedBy asker) {
  std::list<RefObject> objects;
  askOnce(&method, question.key, objects, [&](std::list<RefObject>& found) {
    SourceUse use(Source::Kind::kLDAP, wantedOf(question.type), placeOf(config));
    if (asker == AskedBy::kRevocation && !connectionAdmitted()) {
      use.refused(notAdmitted());
      TolerantReading::leftOut();
      return false;
    }
    ask(config, question, found, use);
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
  const std::list<RefObject> objects =
      objectsOf(*this, config(), below(type, base, ""), AskedBy::kPath);
  if (objects.empty()) return RefObject();
  if (objectStore != nullptr) {
    for (const RefObject& object : objects) addTo(*objectStore, object);
  }
  return objects.front();
}

void LDAPLookupMethod::getBySubject(const std::string& base, std::list<RefCertificate>& out) {
  for (const RefObject& object :
       objectsOf(*this, config(), below(Object::TypeCertificate, base, ""), AskedBy::kRevocation)) {
    out.push_back(object->certificate);
  }
}

void LDAPLookupMethod::getBySubject(const std::string& base,
                                    std::list<RefCertificateRevocationList>& out) {
  for (const RefObject& object :
       objectsOf(*this, config(), below(Object::TypeCRL, base, ""), AskedBy::kRevocation)) {
    out.push_back(object->crl);
  }
}

void LDAPLookupMethod::getByURI(const Uri& uri, std::list<RefCertificateRevocationList>& out) {
  const std::optional<LDAPURI> wanted = LDAPURI::withoutHost(uri);
  if (!wanted) return;
  for (const RefObject& object :
       objectsOf(*this, config(), namedBy(uri, *wanted), AskedBy::kRevocation)) {
    out.push_back(object->crl);
  }
}

void LDAPLookupMethod::getByEmailAddress(const std::string& base, const std::string& address,
                                         std::list<RefCertificate>& out) {
  std::list<Value> values;
  s_addAttributes(config(), below(Object::TypeCertificate, base, "(mail=" + address + ")"), values);
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
