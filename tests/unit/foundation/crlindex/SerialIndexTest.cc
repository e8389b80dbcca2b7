#include "foundation/crlindex/SerialIndex.h"

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>

namespace Velantrix::Crypto {
namespace {

std::string serialOf(std::uint64_t number, std::size_t size) {
  std::string serial(size, '\x01');
  for (std::size_t i = 0; i < std::min(size, sizeof number); ++i) {
    serial[size - 1 - i] = static_cast<char>(number >> (8 * i));
  }
  return serial;
}

// Keys by the positions 1, 2, ...
class Keys {
 public:
  void add(const std::string& serial, std::uint32_t issuer = 0) {
    all_.emplace_back(serial, issuer);
  }
  SerialKey operator()(std::uint32_t position) const {
    ++looks_;
    return {all_[position - 1].first, all_[position - 1].second};
  }
  SerialIndex index() const {
    SerialIndex::Candidates candidates;
    for (std::uint32_t i = 1; i <= all_.size(); ++i) {
      candidates.push_back(SerialIndex::candidate(SerialHash()((*this)(i)), i));
    }
    looks_ = 0;
    return SerialIndex(candidates, *this);
  }
  std::size_t looks() const { return looks_; }

 private:
  std::vector<std::pair<std::string, std::uint32_t>> all_;
  mutable std::size_t looks_ = 0;
};

TEST(SerialIndex, Empty_FindsNothing) {
  const SerialIndex index;
  EXPECT_EQ(index.find({"1", 0}, Keys()), 0U);
}

TEST(SerialIndex, EveryEntry_IsFoundAndNothingElse) {
  Keys keys;
  for (const std::size_t size : {1U, 5U, 7U, 8U, 9U, 16U, 17U, 20U, 32U}) {
    for (std::uint64_t i = 0; i < 200; ++i) keys.add(serialOf(i, size));
  }
  const SerialIndex index = keys.index();
  for (std::uint32_t i = 1; i <= 9 * 200; ++i) {
    const SerialKey key = keys(i);
    EXPECT_EQ(index.find(key, keys), i);
    EXPECT_EQ(index.find({key.serial, 1}, keys), 0U);
  }
  for (std::uint64_t i = 200; i < 256; ++i) EXPECT_EQ(index.find({serialOf(i, 16), 0}, keys), 0U);
  EXPECT_EQ(index.find({"", 0}, keys), 0U);
}

TEST(SerialIndex, OfEqualEntries_TheFirstIsFound) {
  Keys keys;
  for (int i = 0; i < 3; ++i) {
    for (std::uint32_t issuer = 0; issuer < 3; ++issuer) keys.add("same", issuer);
  }
  const SerialIndex index = keys.index();
  for (std::uint32_t issuer = 0; issuer < 3; ++issuer) {
    EXPECT_EQ(index.find({"same", issuer}, keys), issuer + 1);
  }
}

// Neither numbers in a row nor equal ones nor those that differ in one bit make it slow: a few entries are
// looked at for each.
TEST(SerialIndex, HostileEntries_AreNotHeldAgainstEachOther) {
  constexpr std::size_t kMany = 20000;
  Keys row;
  Keys equal;
  Keys bits;
  for (std::uint64_t i = 0; i < kMany; ++i) {
    row.add(serialOf(i, 16));
    equal.add("\x07");
    bits.add(serialOf(i << 40, 16));
  }
  for (const Keys* const keys : {&row, &equal, &bits}) {
    const SerialIndex index = keys->index();
    EXPECT_LT(keys->looks(), 4 * kMany);
    EXPECT_LE(index.memory(), 6 * kMany + 16);
  }
}

TEST(SerialHash, KeysThatDiffer_HaveOtherHashes) {
  const SerialHash hash;
  std::set<std::uint32_t> hashes;
  std::size_t keys = 0;
  for (std::size_t size = 0; size <= kMostSerialOctets; ++size) {
    for (std::uint32_t issuer = 0; issuer < 3; ++issuer, ++keys) {
      hashes.insert(hash({std::string(size, '\0'), issuer}));
    }
    for (std::size_t i = 0; i < size; ++i, ++keys) {
      std::string serial(size, '\0');
      serial[i] = '\x01';
      hashes.insert(hash({serial, 0}));
    }
  }
  EXPECT_GE(hashes.size() + 1, keys);  // one pair in seven thousand runs
  EXPECT_EQ(hash({"serial", 7}), SerialHash()({std::string("serial"), 7}));
}

}  // namespace
}  // namespace Velantrix::Crypto
