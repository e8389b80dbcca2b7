// Where the entries of a CRL stand, by serial number.
#pragma once

#include "foundation/base/Octets.h"
#include "foundation/crlindex/CRLEntry.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto {

/// What entries are told apart by: whose certificate it is (5.3.3), as a number, and its serial number.
struct SerialKey {
  std::string_view serial;  ///< at most kMostSerialOctets
  std::uint32_t issuer;

  bool operator==(const SerialKey&) const = default;
};

/// A hash of 32 bits that nobody can aim at who does not see the keys of this process: of any two that
/// differ, one in 2^32 pairs has equal hashes (multilinear hashing, a strongly universal family), and so
/// hostile serial numbers are no worse than others.
class SerialHash {
 public:
  SerialHash() : keys_(keys()) {}

  std::uint32_t operator()(const SerialKey& key) const noexcept;

 private:
  static constexpr std::size_t kWord = sizeof(std::uint64_t);
  static constexpr std::size_t kMostWords = kMostSerialOctets / kWord;
  // Two for each word, two for what stands beside the serial number, and one.
  using Keys = std::array<std::uint64_t, 2 * (kMostWords + 1) + 1>;

  static const Keys& keys();

  // Multilinear-HM of Lemire and Kaser: one multiplication for 64 bits.
  static std::uint64_t productOf(std::uint64_t word, const std::uint64_t* keys) noexcept {
    return (keys[0] + (word >> 32)) * (keys[1] + (word & 0xffffffff));
  }
  // Reversible, so that what the sum promises of pairs stays, while numbers in a row are torn apart:
  // they would fill the table in steps of one length (MurmurHash3's last step, by Appleby).
  static std::uint32_t scattered(std::uint32_t hash) noexcept {
    hash ^= hash >> 16;
    hash *= 0x85ebca6b;
    hash ^= hash >> 13;
    hash *= 0xc2b2ae35;
    return hash ^ hash >> 16;
  }

  const Keys& keys_;
};

inline std::uint32_t SerialHash::operator()(const SerialKey& key) const noexcept {
  const std::uint64_t* next = keys_.data();
  std::uint64_t sum = *next++;
  sum += productOf(std::uint64_t{key.issuer} << 32 | key.serial.size(), next);
  const char* position = key.serial.data();
  const char* const end = position + key.serial.size();
  std::uint64_t word = 0;
  for (; end - position > static_cast<std::ptrdiff_t>(kWord); position += kWord) {
    std::memcpy(&word, position, kWord);
    sum += productOf(word, next += 2);
  }
  // Those at the end; some of them for the second time, which is cheaper than to take only the others.
  word = 0;
  if (key.serial.size() >= kWord) {
    std::memcpy(&word, end - kWord, kWord);
  } else {
    for (; position != end; ++position) word = word << 8 | static_cast<unsigned char>(*position);
  }
  sum += productOf(word, next + 2);
  return scattered(static_cast<std::uint32_t>(sum >> 32));
}

/// An open-addressed table of 6 octets for each entry, made at once. It holds where entries begin, and
/// leaves to others what stands there.
class SerialIndex {
 public:
  /// Entries begin within so many octets.
  static constexpr unsigned int kPositionBits = 27;

  /// An entry to come into the table: its hash, and where it begins, which is never 0.
  static std::uint64_t candidate(std::uint32_t hash, std::uint32_t position) noexcept {
    return std::uint64_t{hash} << 32 | position;
  }

  using Candidates = std::vector<std::uint64_t, BulkAllocator<std::uint64_t>>;

  SerialIndex() = default;
  /// @param keyAt the SerialKey of an entry, by where it begins. Of equal ones the first stays.
  template <class KeyAt>
  SerialIndex(const Candidates& candidates, const KeyAt& keyAt);

  /// Where the entry begins; 0 where there is none.
  template <class KeyAt>
  std::uint32_t find(const SerialKey& key, const KeyAt& keyAt) const;

  std::size_t memory() const noexcept { return slots_.capacity() * sizeof(std::uint32_t); }

 private:
  static constexpr std::uint32_t kPosition = (std::uint32_t{1} << kPositionBits) - 1;

  std::size_t slotOf(std::uint32_t hash) const noexcept {
    return static_cast<std::size_t>(std::uint64_t{hash} * slots_.size() >> 32);
  }
  // The last bits of the hash, which the slot hardly depends on: where keys differ, what stands at a
  // position has to be looked at in one of 32 cases only.
  static std::uint32_t markOf(std::uint32_t hash) noexcept { return hash << kPositionBits; }

  // The slot of an equal key, or the free one where it would be.
  template <class KeyAt>
  std::size_t probe(std::uint32_t hash, const SerialKey* key, std::uint32_t position,
                    const KeyAt& keyAt) const;

  std::vector<std::uint32_t, BulkAllocator<std::uint32_t>> slots_;  // 0 is free
};

template <class KeyAt>
std::size_t SerialIndex::probe(std::uint32_t hash, const SerialKey* key, std::uint32_t position,
                               const KeyAt& keyAt) const {
  std::size_t slot = slotOf(hash);
  for (; slots_[slot] != 0; slot = slot + 1 == slots_.size() ? 0 : slot + 1) {
    const std::uint32_t there = slots_[slot];
    if ((there & ~kPosition) != markOf(hash)) continue;
    if (keyAt(there & kPosition) == (key != nullptr ? *key : keyAt(position))) break;
  }
  return slot;
}

template <class KeyAt>
SerialIndex::SerialIndex(const Candidates& candidates, const KeyAt& keyAt)
    : slots_(candidates.empty() ? 0 : candidates.size() + candidates.size() / 2 + 1, 0) {
  constexpr std::size_t kAhead = 16;  // slots lie anywhere in memory
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    if (i + kAhead < candidates.size()) {
      __builtin_prefetch(&slots_[slotOf(static_cast<std::uint32_t>(candidates[i + kAhead] >> 32))],
                         1);
    }
    const auto hash = static_cast<std::uint32_t>(candidates[i] >> 32);
    const auto position = static_cast<std::uint32_t>(candidates[i]) & kPosition;
    std::uint32_t& slot = slots_[probe(hash, nullptr, position, keyAt)];
    if (slot == 0) slot = markOf(hash) | position;
  }
}

template <class KeyAt>
std::uint32_t SerialIndex::find(const SerialKey& key, const KeyAt& keyAt) const {
  if (slots_.empty()) return 0;
  return slots_[probe(SerialHash()(key), &key, 0, keyAt)] & kPosition;
}

}  // namespace Velantrix::Crypto
