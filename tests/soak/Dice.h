// The random choices of a soak, all of which follow from its seed.
//
//   Dice dice(4711);
//   if (dice.chance(30)) fault = dice.below(7);     // in 30 of 1000 rounds
//
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace Velantrix::Test::Soak {

class Dice {
 public:
  explicit Dice(std::uint64_t seed) : engine_(seed) {}

  /// 0 to count - 1. The distributions of the standard library are not the same everywhere.
  std::size_t below(std::size_t count) { return static_cast<std::size_t>(engine_() % count); }
  bool chance(std::size_t perMille) { return below(1000) < perMille; }
  template <class T>
  const T& oneOf(const std::vector<T>& all) {
    return all.at(below(all.size()));
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace Velantrix::Test::Soak
