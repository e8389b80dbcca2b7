// The bridge between OpenSSL's lookups and lookup methods.
#include "foundation/run/VerificationRun.h"
#include "support/LogCapture.h"
#include "unit/store/EmptyStore.h"
#include "unit/store/FakeMethod.h"
#include "unit/store/Model.h"
#include "unit/store/Watch.h"

#include <pkx509/LookupMethod.h>
#include <pkx509/ObjectStore.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

static_assert(std::has_virtual_destructor_v<LookupMethod>);
static_assert(std::has_virtual_destructor_v<RefLookupMethod>);
static_assert(!std::is_copy_constructible_v<LookupMethod>);

/// The lookup of a method in a store: OpenSSL gives the one that is there.
X509_LOOKUP* lookupIn(const RefObjectStore& store, const RefLookupMethod& method) {
  return X509_STORE_add_lookup(store, method);
}

Owned<X509_STORE_CTX> contextOf(X509_STORE* store) {
  Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  EXPECT_EQ(X509_STORE_CTX_init(context.get(), store, nullptr, nullptr), 1);
  return context;
}

/// How often an event with that text was noted.
long count(const Events& events, const std::string& text) {
  return std::count(events.begin(), events.end(), text);
}

/// A result record as OpenSSL hands it to a lookup. What a direct call leaves in it is borrowed, so
/// it gets a reference before the record releases it.
class Record {
 public:
  Record() : object_(X509_OBJECT_new()) {}
  ~Record() {
    if (X509* const x509 = certificate()) X509_up_ref(x509);
    if (X509_CRL* const list = crl()) X509_CRL_up_ref(list);
  }
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  operator X509_OBJECT*() const { return object_.get(); }  // NOLINT(google-explicit-constructor)
  X509_LOOKUP_TYPE type() const { return X509_OBJECT_get_type(object_.get()); }
  X509* certificate() const { return X509_OBJECT_get0_X509(object_.get()); }
  X509_CRL* crl() const { return X509_OBJECT_get0_X509_CRL(object_.get()); }

 private:
  Owned<X509_OBJECT> object_;
};

/// The four queries by one form, called as OpenSSL does.
struct Query {
  const char* name;
  int (*call)(X509_LOOKUP*, X509_LOOKUP_TYPE, X509_OBJECT*);
};

const X509_NAME* someName() {
  static const Owned<X509_NAME> name = makeName("C=DE,CN=Some CA");
  return name.get();
}
const ASN1_INTEGER* someSerial() {
  static const Owned<ASN1_INTEGER> serial = [] {
    Owned<ASN1_INTEGER> number(ASN1_INTEGER_new());
    EXPECT_EQ(ASN1_INTEGER_set(number.get(), 0x1a2b), 1);
    return number;
  }();
  return serial.get();
}
constexpr unsigned char kBytes[] = {'a', '\0', 'b'};

const Query kQueries[] = {
    {"subject",
     [](X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, X509_OBJECT* ret) {
       return X509_LOOKUP_by_subject(lookup, type, someName(), ret);
     }},
    {"issuer and serial",
     [](X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, X509_OBJECT* ret) {
       return X509_LOOKUP_by_issuer_serial(lookup, type, someName(), someSerial(), ret);
     }},
    {"fingerprint",
     [](X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, X509_OBJECT* ret) {
       return X509_LOOKUP_by_fingerprint(lookup, type, kBytes, sizeof kBytes, ret);
     }},
    {"alias", [](X509_LOOKUP* lookup, X509_LOOKUP_TYPE type,
                 X509_OBJECT* ret) { return X509_LOOKUP_by_alias(lookup, type, "alias", 5, ret); }},
};

// ------------------------------------------------------------------------------- the store that asks

class AskingMethod : public LookupMethod {
 public:
  AskingMethod() : LookupMethod("AskingMethod") {}
  using LookupMethod::askingStore;
  using LookupMethod::getBySubject;
  RefObject getBySubject(Object::Type, const DistinguishedName&) override { return answer(); }
  RefObject getByIssuerSerial(Object::Type, const DistinguishedName&,
                              const ASN1::Integer&) override {
    return answer();
  }
  RefObject getByFingerPrint(Object::Type, const Buffer&) override { return answer(); }
  RefObject getByAlias(Object::Type, const Buffer&) override { return answer(); }

  std::function<void()> inside;
  std::vector<X509_STORE*> stores;

 private:
  RefObject answer() {
    stores.push_back(askingStore());
    if (const auto once = std::exchange(inside, nullptr)) once();
    stores.push_back(askingStore());
    return RefObject();
  }
};

X509_LOOKUP* lookupOf(const RefObjectStore& store, const RefLookupMethod& method) {
  return X509_STORE_add_lookup(store, method);  // gives the one that is there
}

TEST(LookupMethod, AskingStore_IsThatOfTheLookupWhileItIsAsked) {
  auto* const asked = new AskingMethod;
  const RefLookupMethod method(asked);
  const RefObjectStore first("", X509_FILETYPE_PEM);
  RefObjectStore(first)->add(method);
  const RefObjectStore second = first->clone();
  const Owned<X509_OBJECT> object(X509_OBJECT_new());
  for (const Query& query : kQueries) {
    SCOPED_TRACE(query.name);
    asked->stores.clear();
    asked->inside = [&] { query.call(lookupOf(second, method), X509_LU_X509, object.get()); };
    EXPECT_EQ(AskingMethod::askingStore(), nullptr);
    query.call(lookupOf(first, method), X509_LU_X509, object.get());
    EXPECT_EQ(asked->stores, (std::vector<X509_STORE*>{first, second, second, first}));
    EXPECT_EQ(AskingMethod::askingStore(), nullptr);
  }
}

TEST(LookupMethod, AskingStore_IsNoneAgainAfterAnException) {
  auto* const asked = new AskingMethod;
  const RefLookupMethod method(asked);
  RefObjectStore store("", X509_FILETYPE_PEM);
  store->add(method);
  const Owned<X509_OBJECT> object(X509_OBJECT_new());
  asked->inside = [] { throw FakeMethod::Failure{"inside"}; };
  EXPECT_THROW(kQueries[0].call(lookupOf(store, method), X509_LU_X509, object.get()),
               FakeMethod::Failure);
  EXPECT_EQ(AskingMethod::askingStore(), nullptr);
}

// ---------------------------------------------------------------------- the base class's defaults

TEST(LookupMethod, Defaults_DoNothing) {
  LookupMethod method("Base");
  EXPECT_EQ(method.newItem(), 0);
  EXPECT_EQ(method.initialize(), 0);
  EXPECT_EQ(method.finish(), 0);
  EXPECT_EQ(method.control(1, "text", 2, nullptr), 0);
  method.clear();
  EXPECT_TRUE(method.getBySubject(Object::TypeCertificate, DistinguishedName()).empty());
  EXPECT_TRUE(
      method.getByIssuerSerial(Object::TypeCRL, DistinguishedName(), ASN1::Integer()).empty());
  EXPECT_TRUE(method.getByFingerPrint(Object::TypeCertificate, Buffer()).empty());
  EXPECT_TRUE(method.getByAlias(Object::TypeCertificate, Buffer()).empty());

  const Issued root = issueCA("CN=Root");
  std::list<RefCertificate> certificates{handle(root)};
  std::list<RefCertificateRevocationList> crls{crlHandle({.issuer = &root})};
  method.getBySubject(handle(root)->subject(), certificates);
  method.getBySubject(handle(root)->subject(), crls);
  method.getByEmailAddress("", "someone@example.test", certificates);
  EXPECT_EQ(certificates.size(), 1U);
  EXPECT_EQ(crls.size(), 1U);
}

TEST(LookupMethod, Constructed_PointsToItselfAndToNoStore) {
  const FakeMethod method("a name");
  EXPECT_EQ(method.selfPointer(), &method);
  EXPECT_EQ(method.nameGiven(), "a name");
  EXPECT_EQ(method.pointed(), nullptr);
}

TEST(LookupMethod, Table_HoldsEveryTrampoline) {
  const FakeMethod method;
  const X509_LOOKUP_METHOD* const table = method;
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(X509_LOOKUP_meth_get_new_item(table), LookupMethod::s_new_item);
  EXPECT_EQ(X509_LOOKUP_meth_get_free(table), LookupMethod::s_free);
  EXPECT_EQ(X509_LOOKUP_meth_get_init(table), LookupMethod::s_init);
  EXPECT_EQ(X509_LOOKUP_meth_get_shutdown(table), LookupMethod::s_shutdown);
  EXPECT_EQ(X509_LOOKUP_meth_get_ctrl(table), LookupMethod::s_ctrl);
  EXPECT_EQ(X509_LOOKUP_meth_get_get_by_subject(table), LookupMethod::s_get_by_subject);
  EXPECT_EQ(X509_LOOKUP_meth_get_get_by_issuer_serial(table), LookupMethod::s_get_by_issuer_serial);
  EXPECT_EQ(X509_LOOKUP_meth_get_get_by_fingerprint(table), LookupMethod::s_get_by_fingerprint);
  EXPECT_EQ(X509_LOOKUP_meth_get_get_by_alias(table), LookupMethod::s_get_by_alias);
}

TEST(LookupMethod, NewItem_IsAnsweredWithOneWithoutAskingTheMethod) {
  EXPECT_EQ(LookupMethod::s_new_item(nullptr), 1);
  Events events;
  const Source source("Fake", &events);
  const RefObjectStore store = emptyStore();
  store.get()->add(source.handle);
  EXPECT_EQ(LookupMethod::s_new_item(lookupIn(store, source.handle)), 1);
  EXPECT_EQ(count(events, "newItem"), 0);
  EXPECT_EQ(source->newItem(), 0);
}

// --------------------------------------------------------------------------------------- answers

TEST(LookupMethod, BaseRegistered_EveryQueryIsNotFoundAndLeavesTheRecord) {
  const RefLookupMethod base(new LookupMethod("Base"));
  RefObjectStore store = emptyStore();
  store->add(base);
  X509_LOOKUP* const lookup = lookupIn(store, base);
  const Issued other = issueCA("CN=Other");
  for (const Query& query : kQueries) {
    SCOPED_TRACE(query.name);
    for (const X509_LOOKUP_TYPE type : {X509_LU_X509, X509_LU_CRL}) {
      const Record fresh;
      EXPECT_EQ(query.call(lookup, type, fresh), 0);
      EXPECT_EQ(fresh.type(), X509_LU_NONE);

      const Owned<X509_OBJECT> full(X509_OBJECT_new());
      ASSERT_EQ(X509_OBJECT_set1_X509(full.get(), other.get()), 1);
      EXPECT_EQ(query.call(lookup, type, full.get()), 0);
      EXPECT_EQ(X509_OBJECT_get0_X509(full.get()), other.get());
    }
  }
}

TEST(LookupMethod, Queries_ReachTheMethodWithOpenSSLsArguments) {
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  events.clear();
  for (const X509_LOOKUP_TYPE type : {X509_LU_X509, X509_LU_CRL}) {
    for (const Query& query : kQueries) {
      const Record record;
      EXPECT_EQ(query.call(lookup, type, record), 0);
    }
  }
  using namespace std::string_literals;
  const Events expected = {"subject 1 CN=Some CA,C=DE", "issuer 1 CN=Some CA,C=DE 1A2B",
                           "fingerprint 1 a\0b"s,       "alias 1 alias",
                           "subject 2 CN=Some CA,C=DE", "issuer 2 CN=Some CA,C=DE 1A2B",
                           "fingerprint 2 a\0b"s,       "alias 2 alias"};
  EXPECT_EQ(events, expected);
}

TEST(LookupMethod, NegativeLength_IsNoBytes) {
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  events.clear();
  const Record record;
  EXPECT_EQ(X509_LOOKUP_by_fingerprint(lookup, X509_LU_X509, kBytes, -1, record), 0);
  EXPECT_EQ(X509_LOOKUP_by_alias(lookup, X509_LU_X509, "alias", -1, record), 0);
  EXPECT_EQ(events, (Events{"fingerprint 1 ", "alias 1 "}));
}

std::string textOf(const Buffer& bytes) { return {bytes.data(), bytes.data() + bytes.length()}; }

/// Keeps what it was asked for, as a source does that answers later or caches by it.
class KeepingMethod : public LookupMethod {
 public:
  KeepingMethod() : LookupMethod("Keeping") {}
  RefObject getByFingerPrint(Object::Type /*type*/, const Buffer& fingerPrint) override {
    kept.push_back(fingerPrint);
    return RefObject();
  }
  RefObject getByAlias(Object::Type /*type*/, const Buffer& alias) override {
    kept.push_back(alias);
    return RefObject();
  }
  std::vector<Buffer> kept;
};

TEST(LookupMethod, BuffersThatAMethodKeeps_OutliveTheCallersBytes) {
  auto* const method = new KeepingMethod;
  const RefLookupMethod owner(method);
  RefObjectStore store = emptyStore();
  store->add(owner);
  X509_LOOKUP* const lookup = lookupIn(store, owner);
  const auto expectKept = [&] {
    ASSERT_EQ(method->kept.size(), 2U);
    EXPECT_EQ(textOf(method->kept[0]), "octets of a fingerprint");
    EXPECT_EQ(textOf(method->kept[1]), "the alias of a certificate");
  };
  {
    const Record record;
    std::string fingerprint = "octets of a fingerprint";
    std::string alias = "the alias of a certificate";
    const auto bytes = reinterpret_cast<const unsigned char*>(fingerprint.data());
    EXPECT_EQ(X509_LOOKUP_by_fingerprint(lookup, X509_LU_X509, bytes, 23, record), 0);
    EXPECT_EQ(X509_LOOKUP_by_alias(lookup, X509_LU_X509, alias.data(), 26, record), 0);
    fingerprint.assign(fingerprint.size(), 'x');
    alias.assign(alias.size(), 'x');
    expectKept();
  }
  expectKept();  // where a sanitizer sees that the caller's bytes are gone
}

TEST(LookupMethod, CertificateFound_IsHandedOutWithItsTypeAsTheResult) {
  const Issued root = issueCA("CN=Root");
  const Source source;
  source->answer = RefObject(handle(root));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  for (const Query& query : kQueries) {
    SCOPED_TRACE(query.name);
    const Record record;
    EXPECT_EQ(query.call(lookup, X509_LU_X509, record), 1);
    EXPECT_EQ(record.type(), X509_LU_X509);
    EXPECT_EQ(record.certificate(), root.get());
  }
}

TEST(LookupMethod, CRLFound_IsHandedOutWithItsTypeAsTheResult) {
  const Issued root = issueCA("CN=Root");
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  const Source source;
  source->answer = RefObject(crl);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  for (const Query& query : kQueries) {
    SCOPED_TRACE(query.name);
    const Record record;
    EXPECT_EQ(query.call(lookup, X509_LU_CRL, record), 2);
    EXPECT_EQ(record.type(), X509_LU_CRL);
    EXPECT_EQ(record.crl(), crl->native());
  }
}

TEST(LookupMethod, AnswersOfAnotherType_AreNotFoundAndLeaveTheRecord) {
  const Issued root = issueCA("CN=Root");
  const RefObject certificate(handle(root));
  const RefObject crl(crlHandle({.issuer = &root}));
  const RefObject pair(modelPair(root));
  const RefObject nothing{RefCertificate()};
  const struct {
    const char* name;
    const RefObject& answer;
    X509_LOOKUP_TYPE asked;
  } rows[] = {
      {"a CRL for a certificate", crl, X509_LU_X509},
      {"a certificate for a CRL", certificate, X509_LU_CRL},
      {"a pair for a certificate", pair, X509_LU_X509},
      {"a pair for a CRL", pair, X509_LU_CRL},
      {"a pair for nothing", pair, X509_LU_NONE},
      {"an object of no type for a certificate", nothing, X509_LU_X509},
      {"an object of no type for nothing", nothing, X509_LU_NONE},
      {"a certificate for nothing", certificate, X509_LU_NONE},
  };
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    source->answer = row.answer;
    for (const Query& query : kQueries) {
      SCOPED_TRACE(query.name);
      const Record record;
      EXPECT_EQ(query.call(lookup, row.asked, record), 0);
      EXPECT_EQ(record.type(), X509_LU_NONE);
    }
  }
}

TEST(LookupMethod, WrongTypeAnswered_OpenSSLFindsNothing) {
  const Issued root = issueCA("CN=Root");
  const Source source;
  source->answer = RefObject(crlHandle({.issuer = &root}));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  const Owned<X509_STORE_CTX> context = contextOf(store);
  const Owned<X509_OBJECT> object(X509_OBJECT_new());
  EXPECT_LE(X509_STORE_CTX_get_by_subject(context.get(), X509_LU_X509, someName(), object.get()),
            0);
  EXPECT_EQ(X509_OBJECT_get_type(object.get()), X509_LU_NONE);
}

TEST(LookupMethod, NoRecordToFill_IsNotFound) {
  const Source source;
  source->answer = RefObject(handle(issueCA("CN=Root")));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  EXPECT_EQ(LookupMethod::s_get_by_subject(lookupIn(store, source.handle), X509_LU_X509, someName(),
                                           nullptr),
            0);
}

TEST(LookupMethod, RecordUsedAgain_IsOverwrittenLikeOpenSSLsOwnLookupsDo) {
  const Issued root = issueCA("CN=Root");
  const Issued other = issueCA("CN=Other");
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  const Record record;
  for (int round = 0; round < 3; ++round) {
    source->answer = RefObject(handle(root));
    ASSERT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), record), 1);
    EXPECT_EQ(record.certificate(), root.get());
    source->answer = RefObject(handle(other));
    ASSERT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), record), 1);
    EXPECT_EQ(record.certificate(), other.get());
    source->answer = RefObject(crlHandle({.issuer = &root}));
    ASSERT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_CRL, someName(), record), 2);
  }
}

// ---------------------------------------------------------------------------- reference counting

TEST(LookupMethod, CertificateFoundThroughAContext_IsFreedWithItsLastOwner) {
  Events events;
  Owned<X509> x509 = issueCA("C=DE,CN=Some CA").reference();
  X509* const pointer = x509.get();
  const CertificateWatch watch(pointer, events, "freed");
  Source source;
  source->answer = RefObject(CertificateFactory()(x509.release(), true));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  {
    const Owned<X509_STORE_CTX> context = contextOf(store);
    for (int round = 0; round < 3; ++round) {
      const Owned<X509_OBJECT> object(X509_OBJECT_new());
      ASSERT_EQ(
          X509_STORE_CTX_get_by_subject(context.get(), X509_LU_X509, someName(), object.get()), 1);
      EXPECT_EQ(X509_OBJECT_get0_X509(object.get()), pointer);
      const Owned<X509_OBJECT> again(
          X509_STORE_CTX_get_obj_by_subject(context.get(), X509_LU_X509, someName()));
      ASSERT_NE(again, nullptr);
      EXPECT_EQ(X509_OBJECT_get0_X509(again.get()), pointer);
    }
  }
  source->answer = RefObject();
  EXPECT_FALSE(watch.freed()) << "the store keeps the last answer";
  store = RefObjectStore();
  EXPECT_TRUE(watch.freed()) << "a reference was left over";
}

TEST(LookupMethod, CRLFoundThroughAContext_IsFreedWithItsLastOwner) {
  const CRLWatch watch;
  const Issued root = issueCA("C=DE,CN=Some CA");
  Owned<X509_CRL> made = makeCRL({.issuer = &root});
  X509_CRL* const pointer = made.get();
  CRLWatch::freed() = 0;
  Source source;
  source->answer = RefObject(handle(std::move(made)));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  {
    const Owned<X509_STORE_CTX> context = contextOf(store);
    for (int round = 0; round < 3; ++round) {
      const Owned<X509_OBJECT> object(X509_OBJECT_new());
      ASSERT_EQ(X509_STORE_CTX_get_by_subject(context.get(), X509_LU_CRL, someName(), object.get()),
                1);
      EXPECT_EQ(X509_OBJECT_get0_X509_CRL(object.get()), pointer);
    }
  }
  source->answer = RefObject();
  EXPECT_EQ(CRLWatch::freed(), 0);
  store = RefObjectStore();
  EXPECT_EQ(CRLWatch::freed(), 1);
}

TEST(LookupMethod, DirectQueries_HandOutBorrowedObjects) {
  for (const Query& query : kQueries) {
    SCOPED_TRACE(query.name);
    Events events;
    Owned<X509> x509 = issueCA("CN=Root").reference();
    const CertificateWatch watch(x509.get(), events, "freed");
    const CRLWatch crlWatch;
    const Issued root = issueCA("CN=Root");
    const RefObject certificate(CertificateFactory()(x509.release(), true));
    const RefObject crl(handle(makeCRL({.issuer = &root})));  // one object of OpenSSL's
    CRLWatch::freed() = 0;

    Source source;
    RefObjectStore store = emptyStore();
    store->add(source.handle);
    {
      const RefObject keptCertificate(certificate);
      const RefObject keptCRL(crl);
      for (int round = 0; round < 3; ++round) {
        const Record record;
        source->answer = certificate;
        ASSERT_EQ(query.call(lookupIn(store, source.handle), X509_LU_X509, record), 1);
        const Record second;
        source->answer = crl;
        ASSERT_EQ(query.call(lookupIn(store, source.handle), X509_LU_CRL, second), 2);
      }
    }
    source->answer = RefObject();
    EXPECT_EQ(certificate.use_count(), 1) << "nothing but the last answer is kept";
    EXPECT_EQ(crl.use_count(), 2);
    store = RefObjectStore();
    EXPECT_EQ(crl.use_count(), 1);
    EXPECT_FALSE(watch.freed());
    const_cast<RefObject&>(certificate) = RefObject();
    const_cast<RefObject&>(crl) = RefObject();
    EXPECT_TRUE(watch.freed()) << "a reference was left over";
    EXPECT_EQ(CRLWatch::freed(), 1) << "a reference was left over";
  }
}

TEST(LookupMethod, MethodThatKeepsNothing_ItsAnswersOutliveTheCall) {
  const std::string bytes = der(issueCA("C=DE,CN=Some CA").get());
  Source source;
  source->makeAnswer = [&] {
    return RefObject(CertificateFactory()(certFromDer(bytes).release(), true));
  };
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  const Owned<X509_STORE_CTX> context = contextOf(store);
  for (int round = 0; round < 2; ++round) {
    const Owned<X509_OBJECT> object(X509_OBJECT_new());
    ASSERT_EQ(X509_STORE_CTX_get_by_subject(context.get(), X509_LU_X509, someName(), object.get()),
              1);
    EXPECT_EQ(der(X509_OBJECT_get0_X509(object.get())), bytes);
  }
}

TEST(LookupMethod, MethodAsksItsOwnLookupWhileItAnswers_BothAnswersHold) {
  const Issued outer = issueCA("CN=Outer");
  const Issued inner = issueCA("CN=Inner");
  Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  bool nested = false;
  const Record first;
  const Record second;
  source->makeAnswer = [&] {
    if (std::exchange(nested, true)) return RefObject(handle(inner));
    EXPECT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), second), 1);
    store->add(RefLookupMethod(new LookupMethod("added meanwhile")));
    return RefObject(handle(outer));
  };
  EXPECT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), first), 1);
  EXPECT_EQ(first.certificate(), outer.get());
  EXPECT_EQ(second.certificate(), inner.get());
}

// ------------------------------------------------------------------------- where a table is known

TEST(LookupMethod, NullLookup_IsAnsweredWithNothing) {
  const Record record;
  EXPECT_EQ(LookupMethod::s_init(nullptr), 0);
  EXPECT_EQ(LookupMethod::s_shutdown(nullptr), 0);
  LookupMethod::s_free(nullptr);
  EXPECT_EQ(LookupMethod::s_ctrl(nullptr, 1, "", 0, nullptr), 0);
  EXPECT_EQ(LookupMethod::s_get_by_subject(nullptr, X509_LU_X509, someName(), record), 0);
  EXPECT_EQ(
      LookupMethod::s_get_by_issuer_serial(nullptr, X509_LU_X509, someName(), someSerial(), record),
      0);
  EXPECT_EQ(LookupMethod::s_get_by_fingerprint(nullptr, X509_LU_X509, kBytes, 3, record), 0);
  EXPECT_EQ(LookupMethod::s_get_by_alias(nullptr, X509_LU_X509, "alias", 5, record), 0);
  EXPECT_EQ(record.type(), X509_LU_NONE);
}

TEST(LookupMethod, TableRegisteredByHand_AnswersNotFound) {
  Events events;
  const Source source("Fake", &events);
  source->answer = RefObject(handle(issueCA("CN=Root")));
  source->result = 1;
  {
    const Owned<X509_STORE> plain(X509_STORE_new());
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(plain.get(), source.handle);
    ASSERT_NE(lookup, nullptr);
    EXPECT_EQ(X509_LOOKUP_init(lookup), 0);
    for (const Query& query : kQueries) {
      const Record record;
      EXPECT_EQ(query.call(lookup, X509_LU_X509, record), 0) << query.name;
      EXPECT_EQ(record.type(), X509_LU_NONE);
    }
    EXPECT_EQ(X509_LOOKUP_shutdown(lookup), 0);
  }
  EXPECT_EQ(events, Events());
}

TEST(LookupMethod, TableRegisteredByHandInAStore_AnswersOnceTheStoreKnowsTheMethod) {
  const Issued root = issueCA("CN=Root");
  const Source source;
  source->answer = RefObject(handle(root));
  RefObjectStore store = emptyStore();
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  {
    const Record record;
    EXPECT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), record), 0);
  }
  store->add(source.handle);
  EXPECT_EQ(lookupIn(store, source.handle), lookup);
  const Record record;
  EXPECT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), record), 1);
  EXPECT_EQ(record.certificate(), root.get());
}

TEST(LookupMethod, OneMethodInSeveralStores_AnswersInEach) {
  Events events;
  const Issued root = issueCA("CN=Root");
  const Source source("Fake", &events);
  source->answer = RefObject(handle(root));
  RefObjectStore first = emptyStore();
  RefObjectStore second = emptyStore();
  first->add(source.handle);
  second->add(source.handle);
  EXPECT_EQ(count(events, "initialize"), 2);
  EXPECT_NE(lookupIn(first, source.handle), lookupIn(second, source.handle));

  const Record one;
  EXPECT_EQ(X509_LOOKUP_by_subject(lookupIn(first, source.handle), X509_LU_X509, someName(), one),
            1);
  first = RefObjectStore();
  EXPECT_EQ(count(events, "finish"), 1);
  const Record two;
  EXPECT_EQ(X509_LOOKUP_by_subject(lookupIn(second, source.handle), X509_LU_X509, someName(), two),
            1);
  EXPECT_EQ(two.certificate(), root.get());
  second = RefObjectStore();
  EXPECT_EQ(count(events, "finish"), 2);
  EXPECT_EQ(count(events, "clear"), 2);
}

TEST(LookupMethod, SeveralMethodsInOneStore_EachLookupLeadsToItsOwn) {
  const Issued a = issueCA("CN=A");
  const Issued b = issueCA("CN=B");
  const Source first("Same name");
  const Source second("Same name");
  first->answer = RefObject(handle(a));
  second->answer = RefObject(handle(b));
  RefObjectStore store = emptyStore();
  store->add(first.handle);
  store->add(second.handle);
  const Record one;
  const Record two;
  EXPECT_EQ(X509_LOOKUP_by_subject(lookupIn(store, second.handle), X509_LU_X509, someName(), two),
            1);
  EXPECT_EQ(X509_LOOKUP_by_subject(lookupIn(store, first.handle), X509_LU_X509, someName(), one),
            1);
  EXPECT_EQ(one.certificate(), a.get());
  EXPECT_EQ(two.certificate(), b.get());
}

// ---------------------------------------------------------------------------------- method data

TEST(LookupMethod, ControlWithoutMethodData_IsZeroWhateverTheCommand) {
  Events events;
  const Source source("Fake", &events);
  source->result = 7;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  events.clear();
  EXPECT_EQ(X509_LOOKUP_get_method_data(lookup), nullptr) << "the library sets none";
  for (const int command : {-1, 0, X509_L_FILE_LOAD, X509_L_ADD_DIR, X509_L_ADD_STORE, 1000}) {
    EXPECT_EQ(X509_LOOKUP_ctrl(lookup, command, "text", 1, nullptr), 0) << command;
  }
  EXPECT_EQ(events, Events());
}

TEST(LookupMethod, ControlWithMethodData_ReachesTheMethodItNames) {
  Events events;
  const Source source("Fake", &events);
  FakeMethod other("Other", &events);
  other.result = 7;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  events.clear();
  ASSERT_EQ(X509_LOOKUP_set_method_data(lookup, static_cast<LookupMethod*>(&other)), 1);
  char text[] = "text";
  char* result = text;
  EXPECT_EQ(X509_LOOKUP_ctrl(lookup, 42, "argument", -3, &result), 7);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(events, (Events{"Other: control 42 argument -3"}));
  ASSERT_EQ(X509_LOOKUP_set_method_data(lookup, nullptr), 1);
}

// ------------------------------------------------------------------------------ initialize, finish

TEST(LookupMethod, Attached_IsInitializedOncePerLookup) {
  Events events;
  const Source source("Fake", &events);
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  store->add(source.handle);
  EXPECT_EQ(events, (Events{"initialize"}));
}

TEST(LookupMethod, InitializeFails_TheMethodIsAttachedAllTheSame) {
  const Issued root = issueCA("CN=Root");
  for (const int result : {-1, 0, 1}) {
    const Source source;
    source->result = result;
    source->answer = RefObject(handle(root));
    RefObjectStore store = emptyStore();
    store->add(source.handle);
    EXPECT_EQ(store->methods().size(), 1U);
    const Record record;
    EXPECT_EQ(
        X509_LOOKUP_by_subject(lookupIn(store, source.handle), X509_LU_X509, someName(), record),
        1);
  }
}

TEST(LookupMethod, InitializeThrows_TheCallerSeesItAndTheMethodStaysAttached) {
  Events events;
  const Issued root = issueCA("CN=Root");
  const Source source("Fake", &events);
  source->throwOn = "initialize";
  source->answer = RefObject(handle(root));
  RefObjectStore store = emptyStore();
  EXPECT_THROW(store->add(source.handle), FakeMethod::Failure);
  EXPECT_EQ(store->methods().size(), 1U);
  const Record record;
  EXPECT_EQ(
      X509_LOOKUP_by_subject(lookupIn(store, source.handle), X509_LU_X509, someName(), record), 1);
  store = RefObjectStore();
  EXPECT_EQ(count(events, "finish"), 1);
}

TEST(LookupMethod, InitAndShutdownTrampolines_GiveTheMethodsResult) {
  const Source source;
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  source->result = 5;
  EXPECT_EQ(X509_LOOKUP_init(lookup), 5);
  EXPECT_EQ(X509_LOOKUP_shutdown(lookup), 5);
}

TEST(LookupMethod, StoreDies_FinishThenClearThenTheMethodGoes) {
  Events events;
  RefObjectStore store = emptyStore();
  store->add(Source("Fake", &events).handle);
  EXPECT_EQ(events, (Events{"initialize"})) << "the store keeps the method";
  store = RefObjectStore();
  EXPECT_EQ(events, (Events{"initialize", "finish", "clear", "destroyed"}));
}

TEST(LookupMethod, FinishAndClearThrow_TheStoreDiesAndBothWereCalledOnce) {
  for (const char* const operation : {"finish", "clear"}) {
    SCOPED_TRACE(operation);
    LogCapture log;
    Events events;
    RefObjectStore store = emptyStore();
    {
      const Source source("Fake", &events);
      source->throwOn = operation;
      store->add(source.handle);
    }
    store->add(Source("Second", &events).handle);
    events.clear();
    EXPECT_NO_THROW(store = RefObjectStore());
    EXPECT_EQ(events, (Events{"finish", "clear", "Second: finish", "Second: clear", "destroyed",
                              "Second: destroyed"}));
    EXPECT_EQ(log.lines().size(), 1U) << log.text();
    EXPECT_EQ(VerificationRun::current(), nullptr);
  }
}

// ---------------------------------------------------------------------------------- store pointer

TEST(LookupMethod, StoreGiven_IsPointedTo) {
  Source source;
  RefObjectStore store = emptyStore();
  source->store(store);
  EXPECT_EQ(source->pointed(), store.get());
  source->store(store);
  EXPECT_EQ(source->pointed(), store.get());
  EXPECT_EQ(store->referenceCount(), 1) << "the pointer owns nothing";
}

TEST(LookupMethod, EmptyStoreGiven_KeepsTheOldPointer) {
  Source source;
  RefObjectStore none;
  source->store(none);
  EXPECT_EQ(source->pointed(), nullptr);
  RefObjectStore store = emptyStore();
  source->store(store);
  source->store(none);
  EXPECT_EQ(source->pointed(), store.get());
}

TEST(LookupMethod, HandleThatHoldsNullGiven_PointsToNoStore) {
  Source source;
  RefObjectStore null{static_cast<ObjectStore*>(nullptr)};
  ASSERT_FALSE(null.empty());
  source->store(null);
  EXPECT_EQ(source->pointed(), nullptr);
  RefObjectStore store = emptyStore();
  source->store(store);
  source->store(null);
  EXPECT_EQ(source->pointed(), nullptr);
}

TEST(LookupMethod, StoreDies_ThePointerIsTakenBack) {
  Source source;
  {
    RefObjectStore store = emptyStore();
    store->add(source.handle);
    source->store(store);
    EXPECT_EQ(source->pointed(), store.get());
  }
  EXPECT_EQ(source->pointed(), nullptr);

  RefObjectStore next = emptyStore();
  next->add(source.handle);
  source->store(next);
  EXPECT_EQ(source->pointed(), next.get()) << "it goes on in another store";
}

TEST(LookupMethod, AnotherStoreGiven_TheFirstOnesDeathChangesNothing) {
  Source source;
  RefObjectStore second = emptyStore();
  {
    RefObjectStore first = emptyStore();
    source->store(first);
    source->store(second);
  }
  EXPECT_EQ(source->pointed(), second.get());
}

TEST(LookupMethod, MethodDiesBeforeTheStoreItPointsTo_NothingIsLeft) {
  RefObjectStore store = emptyStore();
  {
    Source source;
    source->store(store);
  }
  store = RefObjectStore();
}

// --------------------------------------------------------------------------------------- lifetimes

TEST(LookupMethod, CallersHandleIsGone_TheStoreStillAsks) {
  const Issued root = issueCA("C=DE,CN=Some CA");
  RefObjectStore store = emptyStore();
  {
    Source source;
    source->answer = RefObject(handle(root));
    store->add(source.handle);
  }
  const Owned<X509_STORE_CTX> context = contextOf(store);
  const Owned<X509_OBJECT> object(X509_OBJECT_new());
  ASSERT_EQ(X509_STORE_CTX_get_by_subject(context.get(), X509_LU_X509, someName(), object.get()),
            1);
  EXPECT_EQ(X509_OBJECT_get0_X509(object.get()), root.get());
}

TEST(LookupMethod, OpenSSLStoreOutlivesTheObjectStore_TheMethodStillAnswers) {
  Events events;
  const Issued root = issueCA("C=DE,CN=Some CA");
  Owned<X509_STORE> kept;
  {
    RefObjectStore store = emptyStore();
    Source source("Fake", &events);
    source->answer = RefObject(handle(root));
    store->add(source.handle);
    source->store(store);
    ASSERT_EQ(X509_STORE_up_ref(store), 1);
    kept.reset(store);
  }
  EXPECT_EQ(events, (Events{"initialize"}));
  {
    const Owned<X509_STORE_CTX> context = contextOf(kept.get());
    const Owned<X509_OBJECT> object(X509_OBJECT_new());
    ASSERT_EQ(X509_STORE_CTX_get_by_subject(context.get(), X509_LU_X509, someName(), object.get()),
              1);
    EXPECT_EQ(X509_OBJECT_get0_X509(object.get()), root.get());
  }
  events.clear();
  kept.reset();
  EXPECT_EQ(events, (Events{"finish", "clear", "destroyed"}));
}

// -------------------------------------------------------------------------------------- exceptions

TEST(LookupMethod, QueryThrowsOutsideAVerification_PassesUnchanged) {
  const Source source;
  source->answer = RefObject(handle(issueCA("CN=Root")));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  const char* const operations[] = {"subject", "issuer", "fingerprint", "alias"};
  for (std::size_t i = 0; i < std::size(kQueries); ++i) {
    SCOPED_TRACE(kQueries[i].name);
    source->throwOn = operations[i];
    const Record record;
    try {
      static_cast<void>(kQueries[i].call(lookup, X509_LU_X509, record));
      ADD_FAILURE() << "nothing was thrown";
    } catch (const FakeMethod::Failure& failure) {
      EXPECT_EQ(failure.what, operations[i]);
    }
    EXPECT_EQ(record.type(), X509_LU_NONE);
  }
  source->throwOn = "initialize";
  EXPECT_THROW(LookupMethod::s_init(lookup), FakeMethod::Failure);
  source->throwOn = "finish";
  EXPECT_THROW(LookupMethod::s_shutdown(lookup), FakeMethod::Failure);
  source->throwOn = "clear";
  EXPECT_THROW(LookupMethod::s_free(lookup), FakeMethod::Failure);
  source->throwOn = "";
}

TEST(LookupMethod, QueryThrowsInAVerification_IsParkedAndNothingMoreIsAsked) {
  Events events;
  const Source source("Fake", &events);
  source->answer = RefObject(handle(issueCA("CN=Root")));
  RefObjectStore store = emptyStore();
  store->add(source.handle);
  X509_LOOKUP* const lookup = lookupIn(store, source.handle);
  events.clear();
  VerificationRun run(static_cast<const X509*>(nullptr));
  source->throwOn = "subject";
  const Record record;
  EXPECT_EQ(X509_LOOKUP_by_subject(lookup, X509_LU_X509, someName(), record), 0);
  EXPECT_TRUE(run.hasParked());
  events.clear();
  for (const Query& query : kQueries) {
    EXPECT_EQ(query.call(lookup, X509_LU_X509, record), 0) << query.name;
  }
  EXPECT_EQ(X509_LOOKUP_init(lookup), 0);
  EXPECT_EQ(events, Events());
  EXPECT_EQ(record.type(), X509_LU_NONE);

  // What releases something is called all the same.
  EXPECT_EQ(X509_LOOKUP_shutdown(lookup), 0);
  EXPECT_EQ(events, (Events{"finish"}));

  try {
    run.rethrowParked();
    ADD_FAILURE() << "nothing was parked";
  } catch (const FakeMethod::Failure& failure) {
    EXPECT_EQ(failure.what, "subject");
  }
}

// ---------------------------------------------------------------------------------- the handle

TEST(RefLookupMethod, Empty_ConvertsToNull) {
  const RefLookupMethod empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(static_cast<x509_lookup_method_st*>(empty), nullptr);
  const RefLookupMethod null(nullptr);
  EXPECT_TRUE(null.empty());
  EXPECT_EQ(static_cast<x509_lookup_method_st*>(null), nullptr);
}

TEST(RefLookupMethod, Full_ConvertsToTheMethodsTable) {
  const Source source;
  EXPECT_EQ(source.handle.get(), source.method);
  EXPECT_EQ(static_cast<x509_lookup_method_st*>(source.handle),
            static_cast<x509_lookup_method_st*>(*source.method));
}

TEST(RefLookupMethod, LastHandle_DeletesTheMethod) {
  Events events;
  {
    RefLookupMethod copy;
    {
      const Source source("Fake", &events);
      copy = source.handle;
      EXPECT_EQ(copy, source.handle);
    }
    EXPECT_EQ(events, Events());
  }
  EXPECT_EQ(events, (Events{"destroyed"}));
}

TEST(RefLookupMethodDeathTest, EmptyDereferenced_StopsTheProcess) {
  const RefLookupMethod empty;
  EXPECT_DEATH(static_cast<void>(empty->newItem()), "Assertion `px != 0' failed");
  EXPECT_DEATH(static_cast<void>((*empty).newItem()), "Assertion `px != 0' failed");
}

}  // namespace
}  // namespace Velantrix::Test
