// What is drawn for a random case: the same for one seed on every machine.
#pragma once

#include "support/Pki.h"

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <random>

namespace Velantrix::Test {

/// The standard's distributions are not the same everywhere; a remainder is.
class Chance {
 public:
  explicit Chance(std::uint64_t seed) : random_(seed) {}
  int below(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }
  int between(int low, int high) { return low + below(high - low + 1); }
  bool percent(int chance) { return below(100) < chance; }
  template <class T>
  T pick(std::initializer_list<T> values) {
    return *(values.begin() + below(static_cast<int>(values.size())));
  }
  template <class List>
  auto& any(List& list) {
    return list[static_cast<std::size_t>(below(static_cast<int>(list.size())))];
  }

 private:
  std::mt19937_64 random_;
};

/// One of that many keys, which are made once: 0 to Count - 1.
template <std::size_t Count>
const std::shared_ptr<EVP_PKEY>& keyOf(int index) {
  static const auto pool = [] {
    std::array<std::shared_ptr<EVP_PKEY>, Count> keys;
    for (std::shared_ptr<EVP_PKEY>& key : keys) key = makeKey();
    return keys;
  }();
  return pool.at(static_cast<std::size_t>(index));
}

}  // namespace Velantrix::Test
