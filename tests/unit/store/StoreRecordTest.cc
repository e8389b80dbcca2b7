#include "foundation/openssl/OpenSSLOwners.h"
#include "store/StoreRecord.h"
#include "unit/store/FakeMethod.h"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

boost::shared_ptr<LookupMethod> method(const std::string& name, Events* events = nullptr) {
  return boost::shared_ptr<LookupMethod>(new FakeMethod(name, events));
}

class StoreRecordTest : public testing::Test {
 protected:
  StoreRecordTest() { EXPECT_TRUE(StoreRecord::attach(store.get())); }

  const X509_LOOKUP* directories() {
    return X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
  }
  const X509_LOOKUP* files() { return X509_STORE_add_lookup(store.get(), X509_LOOKUP_file()); }

  Owned<X509_STORE> store{X509_STORE_new()};
};

TEST_F(StoreRecordTest, Attached_IsFoundAgainAndIsTheStoresOwn) {
  StoreRecord* const record = StoreRecord::of(store.get());
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(StoreRecord::of(store.get()), record);
  const Owned<X509_STORE> other(X509_STORE_new());
  EXPECT_EQ(StoreRecord::of(other.get()), nullptr);
  EXPECT_TRUE(StoreRecord::attach(other.get()));
  EXPECT_NE(StoreRecord::of(other.get()), record);
}

// Slot 0 is the application's.
TEST_F(StoreRecordTest, Slot_IsNotTheFirst) {
  EXPECT_EQ(X509_STORE_get_ex_data(store.get(), 0), nullptr);
}

TEST_F(StoreRecordTest, Item_IsThatOfItsLookup) {
  StoreRecord& record = *StoreRecord::of(store.get());
  const X509_LOOKUP* const first = directories();
  const X509_LOOKUP* const second = files();
  EXPECT_EQ(record.find(first), nullptr);
  EXPECT_EQ(record.find(nullptr), nullptr);
  const boost::shared_ptr<LookupMethod> ofFirst = method("A");
  const boost::shared_ptr<LookupMethod> ofSecond = method("B");
  record.add(first, ofFirst);
  EXPECT_EQ(record.find(second), nullptr);
  record.add(second, ofSecond);
  ASSERT_NE(record.find(first), nullptr);
  ASSERT_NE(record.find(second), nullptr);
  EXPECT_EQ(record.find(first)->lookup, first);
  EXPECT_EQ(record.find(first)->method, ofFirst);
  EXPECT_EQ(record.find(second)->method, ofSecond);
  EXPECT_TRUE(record.find(first)->last.empty());
}

// A query inside a query adds one while the outer one holds its own.
TEST_F(StoreRecordTest, Item_StaysPutWhenOthersAreAdded) {
  StoreRecord& record = *StoreRecord::of(store.get());
  const X509_LOOKUP* const first = directories();
  record.add(first, method("A"));
  StoreRecord::Item* const item = record.find(first);
  const std::vector<char> others(100);
  for (const char& other : others) {
    record.add(reinterpret_cast<const X509_LOOKUP*>(&other), method("B"));  // never looked into
  }
  EXPECT_EQ(record.find(first), item);
}

TEST_F(StoreRecordTest, Methods_LiveAsLongAsTheLastReferenceToTheStore) {
  Events events;
  StoreRecord::of(store.get())->add(directories(), method("A", &events));
  ASSERT_EQ(X509_STORE_up_ref(store.get()), 1);
  Owned<X509_STORE> last(store.get());
  store.reset();
  EXPECT_EQ(events, Events());
  last.reset();
  EXPECT_EQ(events, Events{"A: destroyed"});
}

}  // namespace
}  // namespace Velantrix::Test
