#include "store/StoreRecord.h"

#include <memory>
#include <new>

namespace Velantrix::Crypto::PKX509 {

namespace {

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

}  // namespace Velantrix::Crypto::PKX509
