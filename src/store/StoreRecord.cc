#include "store/StoreRecord.h"

#include "foundation/openssl/References.h"
#include "store/SharedDirectoryLookup.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::ObjectStore", "StoreRecord"};

void freeRecord(void* /*store*/, void* record, CRYPTO_EX_DATA* /*data*/, int /*index*/,
                long /*argl*/, void* /*argp*/) {
  delete static_cast<StoreRecord*>(record);
}

int recordIndex() {
  static const int index = [] {
    const int made = X509_STORE_get_ex_new_index(0, nullptr, nullptr, nullptr, freeRecord);
    if (made == -1) throw std::bad_alloc();  // its only way to fail; the next call tries again
    return made;
  }();
  return index;
}

}  // namespace

bool StoreRecord::attach(X509_STORE* store) {
  auto record = std::make_unique<StoreRecord>();
  if (X509_STORE_set_ex_data(store, recordIndex(), record.get()) != 1) return false;
  static_cast<void>(record.release());  // freeRecord owns it from here
  return true;
}

StoreRecord* StoreRecord::of(const X509_STORE* store) {
  return static_cast<StoreRecord*>(X509_STORE_get_ex_data(store, recordIndex()));
}

StoreRecord::Item* StoreRecord::find(const X509_LOOKUP* lookup) {
  for (Item& item : items_) {
    if (item.lookup == lookup) return &item;
  }
  return nullptr;
}

void StoreRecord::add(const X509_LOOKUP* lookup, const boost::shared_ptr<LookupMethod>& method) {
  items_.push_back(Item{lookup, method, RefObject()});
}

void StoreRecord::addDirectory(const std::string& directory, int fileType) {
  attached_.push_back({directory, fileType});
  directories_.reset();
}

X509_STORE* StoreRecord::directories() {
  if (directories_ != nullptr || attached_.empty()) return directories_.get();
  const ErrorScope errors;
  Owned<X509_STORE> made(X509_STORE_new());
  if (made == nullptr) throw std::bad_alloc();
  // One that cannot be attached has nothing.
  for (const Directory& directory : attached_) {
    static_cast<void>(addDirectories(made.get(), directory.name, directory.fileType));
  }
  directories_ = std::move(made);
  return directories_.get();
}

bool StoreRecord::BySubject::operator()(const Owned<X509>& left, const Owned<X509>& right) const {
  return X509_NAME_cmp(X509_get_subject_name(left.get()), X509_get_subject_name(right.get())) < 0;
}

bool StoreRecord::BySubject::operator()(const Owned<X509>& left, const X509_NAME* right) const {
  return X509_NAME_cmp(X509_get_subject_name(left.get()), right) < 0;
}

bool StoreRecord::BySubject::operator()(const X509_NAME* left, const Owned<X509>& right) const {
  return X509_NAME_cmp(left, X509_get_subject_name(right.get())) < 0;
}

StoreRecord::Certificates::const_iterator StoreRecord::findDistrusted(X509* certificate) const {
  const auto [first, last] =
      distrusted_.equal_range<const X509_NAME*>(X509_get_subject_name(certificate));
  const auto found = std::find_if(first, last, [&](const Owned<X509>& candidate) {
    return X509_cmp(candidate.get(), certificate) == 0;
  });
  return found == last ? distrusted_.end() : found;
}

void StoreRecord::distrust(X509* certificate) {
  if (!distrusts(certificate)) distrusted_.insert(newReference(certificate, kHere));
}

void StoreRecord::trust(X509* certificate) {
  const auto found = findDistrusted(certificate);
  if (found != distrusted_.end()) distrusted_.erase(found);
}

bool StoreRecord::distrusts(X509* certificate) const {
  return findDistrusted(certificate) != distrusted_.end();
}

bool StoreRecord::distrusts(const X509_NAME* subject) const {
  return distrusted_.contains(subject);
}

}  // namespace Velantrix::Crypto::PKX509
