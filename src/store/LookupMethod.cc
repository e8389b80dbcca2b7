#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "store/AskMethod.h"
#include "store/Lending.h"
#include "store/StoreRecord.h"
#include "store/TrustSources.h"

#include <pkx509/HashDirLookup.h>
#include <pkx509/LookupMethod.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/Assert.h>

#include <new>
#include <set>
#include <typeinfo>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

StoreRecord::Item* itemOf(const X509_LOOKUP* lookup) {
  if (lookup == nullptr) return nullptr;
  const X509_STORE* const store = X509_LOOKUP_get_store(lookup);
  if (store == nullptr) return nullptr;
  StoreRecord* const record = StoreRecord::of(store);
  return record == nullptr ? nullptr : record->find(lookup);
}

// Puts an answer into OpenSSL's record and returns its type, which OpenSSL reads as "found". Only
// an object of the type asked for is handed out: OpenSSL trusts its own question and would take a
// CRL for a certificate.
int handOut(StoreRecord::Item& item, X509_LOOKUP_TYPE type, const RefObject& object,
            X509_OBJECT* ret) {
  if (object.empty() || ret == nullptr ||
      static_cast<int>(object->type) != static_cast<int>(type)) {
    return 0;
  }
  if (object->data == nullptr) return 0;
  // item.last holds it until OpenSSL has its own reference.
  if (object->type == Object::TypeCertificate) {
    if (!lend(static_cast<X509*>(object->data), ret)) return 0;
  } else if (object->type == Object::TypeCRL) {
    if (!lend(static_cast<X509_CRL*>(object->data), ret)) return 0;
  } else {
    return 0;
  }
  item.last = object;
  return object->type;
}

thread_local X509_STORE* askedBy = nullptr;
thread_local bool trustedOnly = false;

// While a query goes on. It may start a verification, which asks by another store, and asks all.
class Asking {
 public:
  explicit Asking(X509_STORE* store) noexcept
      : outer_(std::exchange(askedBy, store)), outerTrusted_(std::exchange(trustedOnly, false)) {}
  ~Asking() {
    askedBy = outer_;
    trustedOnly = outerTrusted_;
  }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

 private:
  X509_STORE* outer_;
  bool outerTrusted_;
};

// What enters an OpenSSL store while a source that is not trusted answers.
class Intake {
 public:
  explicit Intake(X509_STORE* store) : store_(store) {
    if (store_ == nullptr) return;
    forEach([this](X509* certificate) { before_.insert(certificate); });
  }

  void distrust() const {
    StoreRecord* const record = store_ == nullptr ? nullptr : StoreRecord::of(store_);
    if (record == nullptr) return;
    forEach([&](X509* certificate) {
      if (!before_.contains(certificate)) record->distrust(certificate);
    });
  }

 private:
  template <class Body>
  void forEach(const Body& body) const {
    const STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(store_);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
      X509* const certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
      if (certificate != nullptr) body(certificate);
    }
  }

  X509_STORE* store_;  // borrowed, may be null
  std::set<const X509*> before_;
};

using Source = SourceRecord::Source;

Source::Wanted wantedOf(X509_LOOKUP_TYPE type) noexcept {
  return type == X509_LU_CRL ? Source::Wanted::kCRLs : Source::Wanted::kCertificates;
}

Object::Type objectType(X509_LOOKUP_TYPE type) { return static_cast<Object::Type>(type); }

// OpenSSL never hands over a negative length; a caller of the public functions might.
unsigned int bufferLength(int length) {
  return length < 0 ? 0U : static_cast<unsigned int>(length);
}

}  // namespace

OnlyTrustSources::OnlyTrustSources() noexcept : outer_(std::exchange(trustedOnly, true)) {}

OnlyTrustSources::~OnlyTrustSources() { trustedOnly = outer_; }

struct LookupMethod::State {
  Owned<X509_LOOKUP_METHOD> table;
  bool trustSource = true;
};

struct LookupMethod::Answering {
  // `query` is called with the method and gives a RefObject.
  template <class Query>
  static int answer(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, X509_OBJECT* ret,
                    const Query& query) {
    return guardedCallback(0, [&] {
      StoreRecord::Item* const item = itemOf(lookup);
      if (item == nullptr) return 0;
      const bool trusted = item->method->isTrustSource();
      if (trustedOnly && !trusted && type == X509_LU_X509) return 0;
      if (!VerificationRun::admitStep()) {
        tellRefusal(Source::Kind::kLookupMethod, wantedOf(type), item->method->methodName());
        return 0;
      }
      if (hasNothingForOpenSSL(*item->method)) return 0;
      X509_STORE* const store = X509_LOOKUP_get_store(lookup);
      const Asking asking(store);
      const RefObject object = tellOf(*item->method, type, [&] {
        return trusted ? query(*item->method) : distrusted(*item->method, store, query);
      });
      const int result = handOut(*item, type, object, ret);
      // It may have had it from somebody else before.
      if (trusted && result == X509_LU_X509) {
        StoreRecord::of(store)->trust(static_cast<X509*>(object->data));
      }
      return result;
    });
  }

  // Hash directories do not, since OpenSSL reads them itself; what is derived from one may. Names need not
  // be copied for them.
  static bool hasNothingForOpenSSL(const LookupMethod& method) {
    return typeid(method) == typeid(HashDirLookupMethod);
  }

  // What the method answers, told of.
  template <class Query>
  static RefObject tellOf(LookupMethod& method, X509_LOOKUP_TYPE type, const Query& query) {
    SourceUse use(Source::Kind::kLookupMethod, wantedOf(type), method.methodName());
    RefObject object;
    use.during([&] { object = query(); });
    if (object.empty()) {
      if (dynamic_cast<const HashDirLookupMethod*>(&method) != nullptr) use.drop();
      return object;
    }
    use.found(1);
    const ObjectOrigins::Where origin{VerificationReport::Origin::Kind::kLookupMethod,
                                      use.origin()};
    ObjectOrigins::note(object->certificate, origin);
    ObjectOrigins::note(object->crl, origin);
    return object;
  }

  // What a source that is not trusted answers, and adds to the store that asks or to its own.
  template <class Query>
  static RefObject distrusted(LookupMethod& method, X509_STORE* store, const Query& query) {
    X509_STORE* const pointed =
        method.objectStore == nullptr ? nullptr : method.objectStore->native();
    const Intake ofAsking(store);
    const Intake ofPointed(pointed == store ? nullptr : pointed);
    const auto distrust = [&] {
      ofAsking.distrust();
      ofPointed.distrust();
    };
    RefObject object;
    try {
      object = query(method);
    } catch (...) {
      distrust();
      throw;
    }
    distrust();
    if (!object.empty() && object->type == Object::TypeCertificate && object->data != nullptr) {
      StoreRecord::of(store)->distrust(static_cast<X509*>(object->data));
    }
    return object;
  }
};

LookupMethod::LookupMethod(const std::string& methodName)
    : self(this), name(methodName), state_(std::make_unique<State>()) {
  state_->table.reset(X509_LOOKUP_meth_new(name.c_str()));
  X509_LOOKUP_METHOD* const table = state_->table.get();
  if (table == nullptr) throw std::bad_alloc();
  const bool filled =
      X509_LOOKUP_meth_set_new_item(table, s_new_item) == 1 &&
      X509_LOOKUP_meth_set_free(table, s_free) == 1 &&
      X509_LOOKUP_meth_set_init(table, s_init) == 1 &&
      X509_LOOKUP_meth_set_shutdown(table, s_shutdown) == 1 &&
      X509_LOOKUP_meth_set_ctrl(table, s_ctrl) == 1 &&
      X509_LOOKUP_meth_set_get_by_subject(table, s_get_by_subject) == 1 &&
      X509_LOOKUP_meth_set_get_by_issuer_serial(table, s_get_by_issuer_serial) == 1 &&
      X509_LOOKUP_meth_set_get_by_fingerprint(table, s_get_by_fingerprint) == 1 &&
      X509_LOOKUP_meth_set_get_by_alias(table, s_get_by_alias) == 1;
  PKX509_ASSERT(filled);
}

LookupMethod::~LookupMethod() {
  if (objectStore != nullptr) objectStore->forget(this);
}

bool LookupMethod::isTrustSource() const noexcept { return state_->trustSource; }

void LookupMethod::trustSource(bool is) noexcept { state_->trustSource = is; }

LookupMethod::operator x509_lookup_method_st*() const noexcept { return state_->table.get(); }

int LookupMethod::newItem() { return 0; }
void LookupMethod::clear() {}
int LookupMethod::initialize() { return 0; }
int LookupMethod::finish() { return 0; }
int LookupMethod::control(int /*cmd*/, const char* /*argc*/, long /*argl*/, char** /*ret*/) {
  return 0;
}
RefObject LookupMethod::getBySubject(Object::Type /*type*/, const DistinguishedName& /*name*/) {
  return RefObject();
}
RefObject LookupMethod::getByIssuerSerial(Object::Type /*type*/,
                                          const DistinguishedName& /*issuer*/,
                                          const ASN1::Integer& /*serial*/) {
  return RefObject();
}
RefObject LookupMethod::getByFingerPrint(Object::Type /*type*/, const Buffer& /*fingerPrint*/) {
  return RefObject();
}
RefObject LookupMethod::getByAlias(Object::Type /*type*/, const Buffer& /*alias*/) {
  return RefObject();
}
void LookupMethod::getBySubject(const DistinguishedName& /*subject*/,
                                std::list<RefCertificate>& /*out*/) {}
void LookupMethod::getBySubject(const DistinguishedName& /*issuer*/,
                                std::list<RefCertificateRevocationList>& /*out*/) {}
void LookupMethod::getByEmailAddress(const std::string& /*base*/, const std::string& /*address*/,
                                     std::list<RefCertificate>& /*out*/) {}

X509_STORE* LookupMethod::askingStore() noexcept { return askedBy; }

void LookupMethod::store(RefObjectStore& s) {
  if (s.empty() || s.get() == objectStore) return;
  if (s.get() != nullptr) s->remember(this);
  if (objectStore != nullptr) objectStore->forget(this);
  objectStore = s.get();
}

int LookupMethod::s_new_item(X509_LOOKUP* /*lookup*/) { return 1; }

void LookupMethod::s_free(X509_LOOKUP* lookup) {
  guardedCleanup([&] {
    if (const StoreRecord::Item* const item = itemOf(lookup)) item->method->self->clear();
  });
}

int LookupMethod::s_init(X509_LOOKUP* lookup) {
  return guardedCallback(0, [&] {
    const StoreRecord::Item* const item = itemOf(lookup);
    return item == nullptr ? 0 : item->method->self->initialize();
  });
}

int LookupMethod::s_shutdown(X509_LOOKUP* lookup) {
  int result = 0;
  guardedCleanup([&] {
    if (const StoreRecord::Item* const item = itemOf(lookup)) result = item->method->self->finish();
  });
  return result;
}

int LookupMethod::s_ctrl(X509_LOOKUP* lookup, int cmd, const char* argc, long argl, char** ret) {
  return guardedCallback(0, [&] {
    if (lookup == nullptr) return 0;
    auto* const method = static_cast<LookupMethod*>(X509_LOOKUP_get_method_data(lookup));
    return method == nullptr ? 0 : method->self->control(cmd, argc, argl, ret);
  });
}

int LookupMethod::s_get_by_subject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type,
                                   const X509_NAME* name, X509_OBJECT* ret) {
  return Answering::answer(lookup, type, ret, [&](LookupMethod& method) {
    return method.self->getBySubject(objectType(type), DistinguishedName(name));
  });
}

int LookupMethod::s_get_by_issuer_serial(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type,
                                         const X509_NAME* name, const ASN1_INTEGER* serial,
                                         X509_OBJECT* ret) {
  return Answering::answer(lookup, type, ret, [&](LookupMethod& method) {
    return method.self->getByIssuerSerial(objectType(type), DistinguishedName(name),
                                          ASN1::Integer(serial));
  });
}

int LookupMethod::s_get_by_fingerprint(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type,
                                       const unsigned char* bytes, int len, X509_OBJECT* ret) {
  return Answering::answer(lookup, type, ret, [&](LookupMethod& method) {
    return method.self->getByFingerPrint(objectType(type), Buffer(bytes, bufferLength(len), true));
  });
}

int LookupMethod::s_get_by_alias(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const char* str,
                                 int len, X509_OBJECT* ret) {
  return Answering::answer(lookup, type, ret, [&](LookupMethod& method) {
    return method.self->getByAlias(objectType(type), Buffer(str, bufferLength(len), true));
  });
}

RefLookupMethod::RefLookupMethod(LookupMethod* method) : method_(method) {}

RefLookupMethod::~RefLookupMethod() = default;

RefLookupMethod::operator x509_lookup_method_st*() const noexcept {
  return empty() ? nullptr : static_cast<x509_lookup_method_st*>(*method_);
}

LookupMethod* RefLookupMethod::operator->() const {
  const LookupMethod* const px = get();
  PKX509_ASSERT(px != 0);
  return get();
}

LookupMethod& RefLookupMethod::operator*() const { return *operator->(); }

}  // namespace Velantrix::Crypto::PKX509
