#include "store/TrustSources.h"

#include "foundation/openssl/References.h"
#include "store/AskMethod.h"
#include "store/LookupMemory.h"
#include "store/StoreRecord.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/DistinguishedName.h>

#include <list>
#include <new>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::ObjectStore", "TrustSources"};

Owned<STACK_OF(X509)> emptyStack() {
  Owned<STACK_OF(X509)> stack(sk_X509_new_null());
  if (stack == nullptr) throw std::bad_alloc();
  return stack;
}

void add(STACK_OF(X509) * stack, X509* certificate) {
  if (X509_add_cert(stack, certificate, X509_ADD_FLAG_UP_REF | X509_ADD_FLAG_NO_DUP) != 1) {
    throw std::bad_alloc();
  }
}

void addAll(STACK_OF(X509) * stack, const STACK_OF(X509) * others) {
  for (int i = 0; i < sk_X509_num(others); ++i) add(stack, sk_X509_value(others, i));
}

bool contains(const STACK_OF(X509) * stack, X509* certificate) {
  for (int i = 0; i < sk_X509_num(stack); ++i) {
    if (X509_cmp(sk_X509_value(stack, i), certificate) == 0) return true;
  }
  return false;
}

// What OpenSSL finds in a store by itself; a name that the store has is looked for elsewhere no more.
// Null when it fails.
Owned<STACK_OF(X509)> heldBy(X509_STORE_CTX* context, const X509_NAME* subject) {
  const ErrorScope errors;
  const OnlyTrustSources others;
  return Owned<STACK_OF(X509)>(X509_STORE_CTX_get1_certs(context, subject));
}

Owned<STACK_OF(X509)> inDirectories(StoreRecord& record, const X509_NAME* subject) {
  X509_STORE* const directories = record.directories();
  if (directories == nullptr) return {};
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  if (context == nullptr ||
      X509_STORE_CTX_init(context.get(), directories, nullptr, nullptr) != 1) {
    throw std::bad_alloc();
  }
  return heldBy(context.get(), subject);
}

// As OpenSSL asks it. What a lookup method throws is parked where a verification goes on.
RefObject answerOf(const StoreRecord::Item& item, const X509_NAME* subject) {
  const Owned<X509_OBJECT> record(X509_OBJECT_new());
  if (record == nullptr) throw std::bad_alloc();
  X509_LOOKUP* const lookup = const_cast<X509_LOOKUP*>(item.lookup);  // OpenSSL's own is not const
  if (LookupMethod::s_get_by_subject(lookup, X509_LU_X509, subject, record.get()) == 0) return {};
  // The record has only borrowed it, but gives a reference back.
  X509* const certificate = X509_OBJECT_get0_X509(record.get());
  static_cast<void>(newReference(certificate, kHere).release());
  return RefObject(CertificateFactory()(certificate, false));
}

// A lookup method that has several of one name answers OpenSSL with one of them. One that answers
// OpenSSL with none is no source of trust for the name, whatever its lists are for.
void addFrom(const StoreRecord::Item& item, const X509_NAME* subject, const DistinguishedName& name,
             STACK_OF(X509) * out) {
  LookupMethod& method = *item.method;
  if (!method.isTrustSource()) return;
  std::list<RefObject> answers;
  askOnce(&method, name, answers, [&](std::list<RefObject>& found) {
    found.push_back(answerOf(item, subject));
    return true;
  });
  if (answers.front().empty()) return;
  add(out, answers.front()->certificate);
  std::list<RefCertificate> listed;
  askOnce(&method, name, listed, [&](std::list<RefCertificate>& found) {
    ask(method, name, found);
    return true;
  });
  for (const RefCertificate& certificate : listed) {
    if (!certificate.empty() && certificate->subject() == name) add(out, certificate);
  }
}

}  // namespace

Owned<STACK_OF(X509)> TrustSources::certificates(const X509_NAME* subject) const {
  const StoreRecord* const record = StoreRecord::of(X509_STORE_CTX_get0_store(context_));
  // What the store itself may hold of a name is only told by asking those who may have added it.
  const Owned<STACK_OF(X509)> held = heldBy(context_, subject);
  Owned<STACK_OF(X509)> found = emptyStack();
  for (int i = 0; i < sk_X509_num(held.get()); ++i) {
    X509* const certificate = sk_X509_value(held.get(), i);
    if (record == nullptr || !record->distrusts(certificate)) add(found.get(), certificate);
  }
  addAll(found.get(), overlooked(subject).get());
  return found;
}

Owned<STACK_OF(X509)> TrustSources::overlooked(const X509_NAME* subject) const {
  StoreRecord* const record = StoreRecord::of(X509_STORE_CTX_get0_store(context_));
  Owned<STACK_OF(X509)> found = emptyStack();
  if (record == nullptr) return found;
  // A name that the store has is looked for in no directory, whoever it was that added it.
  if (record->distrusts(subject)) addAll(found.get(), inDirectories(*record, subject).get());
  const DistinguishedName name(subject);
  for (const StoreRecord::Item& item : record->items()) addFrom(item, subject, name, found.get());
  return found;
}

bool TrustSources::have(X509* certificate) const {
  const Owned<STACK_OF(X509)> trusted = certificates(X509_get_subject_name(certificate));
  return contains(trusted.get(), certificate);
}

bool TrustSources::mayEndPath(X509* certificate) const {
  const StoreRecord* const record = StoreRecord::of(X509_STORE_CTX_get0_store(context_));
  return record == nullptr || !record->distrusts(certificate) || have(certificate);
}

}  // namespace Velantrix::Crypto::PKX509
