// The values that an LDAP directory holds, through the lookup method. Choices stand in front: what
// is looked for, and how the values are spread over entries and attributes. Then come the values,
// each the content of an element; what is left at the end and is no element is one more.
#include "Fixture.h"
#include "Fuzz.h"
#include "LDAPServer.h"
#include "integration/LDAPPeer.h"

#include <pkx509/LDAPLookup.h>

#include <algorithm>
#include <list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Velantrix::Fuzz::LDAPValuesTarget {
namespace {

using namespace Crypto::PKX509;

const std::string kBase = "o=Test";

using Values = std::vector<std::string>;
using Certificates = std::list<RefCertificate>;
using CRLs = std::list<RefCertificateRevocationList>;
using Pairs = std::list<RefCrossCertificatePair>;

Values valuesOf(std::string_view input) {
  Values values;
  while (!input.empty()) {
    const std::optional<Tlv> element = berFront(input);
    if (!element || !element->whole()) {
      values.emplace_back(input);
      break;
    }
    values.emplace_back(element->content);
    input.remove_prefix(element->head + element->content.size());
  }
  return values;
}

// The attributes' names do not matter.
std::string entriesOf(const Values& values, int id, unsigned int spread) {
  std::vector<Test::Attributes> entries(1);
  for (const std::string& value : values) {
    Test::Attributes& last = entries.back();
    if (last.empty() || (spread & 1U) != 0) {
      if ((spread & 2U) != 0 && !last.empty()) entries.emplace_back();
      entries.back().push_back({"any;binary", {}});
    }
    entries.back().back().second.push_back(value);
  }
  if ((spread & 4U) != 0) entries.insert(entries.begin(), Test::Attributes());
  std::string messages;
  for (const Test::Attributes& attributes : entries) {
    messages += Test::message(id, Test::entry("cn=A", attributes));
  }
  return messages;
}

// What the values hold, asked of the readers themselves. False when one of them refuses.

bool read(const Values& values, Certificates& out) {
  return accepted([&] {
    for (const std::string& value : values) {
      CertificateFactory::read(buffer(value.data(), value.size()), out);
    }
  });
}

bool read(const Values& values, CRLs& out) {
  return accepted([&] {
    for (const std::string& value : values) {
      const auto crl = CertificateRevocationListFactory::read(buffer(value.data(), value.size()));
      if (!crl.empty()) out.push_back(crl);
    }
  });
}

bool read(const Values& values, Pairs& out) {
  return accepted([&] {
    for (const std::string& value : values) {
      out.emplace_back(buffer(value.data(), value.size()));
    }
  });
}

bool same(const RefCertificate& one, const RefCertificate& other) {
  return one.empty() == other.empty() && (one.empty() || one == other);
}

bool same(const RefCertificateRevocationList& one, const RefCertificateRevocationList& other) {
  return !one.empty() && !other.empty() && X509_CRL_match(one, other) == 0;
}

bool same(const RefCrossCertificatePair& one, const RefCrossCertificatePair& other) {
  return same(one->forward(), other->forward()) && same(one->reverse(), other->reverse());
}

template <class List>
bool sameAll(const List& one, const List& other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](const auto& a, const auto& b) { return same(a, b); });
}

RefCertificate readAgain(const std::string& pem, const RefCertificate& /*kind*/) {
  Certificates again;
  CertificateFactory::read(buffer(pem.data(), pem.size()), again);
  return again.front();
}

RefCertificateRevocationList readAgain(const std::string& pem,
                                       const RefCertificateRevocationList& /*kind*/) {
  return CertificateRevocationListFactory::read(buffer(pem.data(), pem.size()));
}

template <class Handle>
void writeAndReadAgain(const Handle& handle) {
  const std::string pem = pemOf(handle);
  if (pem.empty()) return;
  std::string again;
  PKX509_ASSERT(accepted([&] { again = pemOf(readAgain(pem, handle)); }));
  PKX509_ASSERT(again == pem);
}

template <class Handle>
void writeAndReadAgain(const std::list<Handle>& handles) {
  std::size_t left = 4;
  for (const Handle& handle : handles) {
    if (left-- == 0) break;
    writeAndReadAgain(handle);
  }
}

// The list forms.
template <class List>
void lookUpList(LDAPLookupMethod& method, const Values& values, bool byMail) {
  List expected;
  const bool readable = read(values, expected);
  List found;
  const bool done = accepted([&] {
    if constexpr (std::is_same_v<List, Certificates>) {
      if (byMail) return method.getByEmailAddress(kBase, "a@b.test", found);
    }
    static_cast<void>(byMail);
    method.getBySubject(kBase, found);
  });
  PKX509_ASSERT(done == readable);
  if (!done) return;
  PKX509_ASSERT(sameAll(found, expected));
  writeAndReadAgain(found);
}

// What an object of a lookup is.

const RefCertificate& part(const Object& object, const RefCertificate& /*kind*/) {
  PKX509_ASSERT(object.type == Object::TypeCertificate);
  PKX509_ASSERT(object.data == static_cast<X509*>(object.certificate));
  return object.certificate;
}

const RefCertificateRevocationList& part(const Object& object,
                                         const RefCertificateRevocationList& /*kind*/) {
  PKX509_ASSERT(object.type == Object::TypeCRL);
  PKX509_ASSERT(object.data == static_cast<X509_CRL*>(object.crl));
  return object.crl;
}

const RefCrossCertificatePair& part(const Object& object, const RefCrossCertificatePair& /*kind*/) {
  PKX509_ASSERT(object.type == Object::TypeNone && object.data == nullptr);
  return object.crossPair;
}

template <class Predicate>
bool holds(const RefObjectStore& store, const Predicate& wanted) {
  const STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(store);
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    if (wanted(sk_X509_OBJECT_value(objects, i))) return true;
  }
  return false;
}

bool hasEntered(const RefObjectStore& store, const RefCertificate& certificate) {
  return certificate.empty() || holds(store, [&](const X509_OBJECT* object) {
           const X509* const held = X509_OBJECT_get0_X509(object);
           return held != nullptr && X509_cmp(held, certificate) == 0;
         });
}

bool hasEntered(const RefObjectStore& store, const RefCertificateRevocationList& crl) {
  return holds(store, [&](X509_OBJECT* object) {
    const X509_CRL* const held = X509_OBJECT_get0_X509_CRL(object);
    return held != nullptr && X509_CRL_match(held, crl) == 0;
  });
}

bool hasEntered(const RefObjectStore& store, const RefCrossCertificatePair& pair) {
  return hasEntered(store, pair->forward()) && hasEntered(store, pair->reverse());
}

// The form for OpenSSL, with a store and without one.
template <class List>
void lookUpObject(LDAPLookupMethod& method, const Values& values, int type, bool withStore) {
  using Handle = typename List::value_type;
  List expected;
  const bool readable = read(values, expected);
  RefObjectStore store("/nonexistent", X509_FILETYPE_PEM);
  if (withStore) method.store(store);
  RefObject first;
  const bool done =
      accepted([&] { first = method.getBySubject(static_cast<Object::Type>(type), kBase); });
  PKX509_ASSERT(done == readable);
  PKX509_ASSERT(first.empty() == (!done || expected.empty()));
  if (!first.empty()) PKX509_ASSERT(same(part(*first.get(), Handle()), expected.front()));
  if (!done || !withStore) {
    PKX509_ASSERT(store->objects().empty());
    PKX509_ASSERT(sk_X509_OBJECT_num(X509_STORE_get0_objects(store)) == 0);
    return;
  }
  List held;
  for (const RefObject& object : store->objects()) held.push_back(part(*object.get(), Handle()));
  PKX509_ASSERT(sameAll(held, expected));
  if (!held.empty()) PKX509_ASSERT(store->objects().front().get() == first.get());
  std::size_t left = 16;
  for (const Handle& handle : held) {
    if (left-- == 0) break;
    PKX509_ASSERT(hasEntered(store, handle));
  }
}

}  // namespace

PKX509_FUZZ_TARGET(ldap_values) {
  begin();
  const std::string octets = text(data, size);
  std::string_view input = octets;
  const Choices choices(input);
  const Values values = valuesOf(input);

  // Without a name it binds, with one it does not.
  const bool binds = (choices[1] & 8U) != 0;
  const int id = binds ? 2 : 1;
  ldapServer().answer((binds ? Test::message(1, Test::done(0, "", 0x61)) : std::string()) +
                      entriesOf(values, id, choices[1]) + Test::message(id, Test::done(0)));
  LDAPLookupMethod method({ldapServer().server(), binds ? "" : "cn=A", ""});
  const bool withStore = (choices[1] & 16U) == 0;
  switch (choices[0] % 6) {
    case 0:
      lookUpObject<Certificates>(method, values, Object::TypeCertificate, withStore);
      break;
    case 1:
      lookUpObject<CRLs>(method, values, Object::TypeCRL, withStore);
      break;
    case 2:
      lookUpObject<Pairs>(method, values, Object::TypeCrossCertificatePair, withStore);
      break;
    case 3:
      lookUpList<Certificates>(method, values, false);
      break;
    case 4:
      lookUpList<CRLs>(method, values, false);
      break;
    default:
      lookUpList<Certificates>(method, values, true);
      break;
  }
  return 0;
}

}  // namespace Velantrix::Fuzz::LDAPValuesTarget
