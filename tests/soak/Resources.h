// What the measured process holds, and whether that is flat.
//
//   Resources before = measureResources();
//   ...
//   for (const std::string& complaint : judge(samples)) std::cout << complaint;
//
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Velantrix::Test::Soak {

struct Resources {
  std::uint64_t round = 0;
  std::size_t resident = 0;   ///< bytes, after free memory was given back to the system
  std::size_t anonymous = 0;  ///< those of them that are no file's: programs are read bit by bit
  std::size_t heap = 0;       ///< bytes that were allocated and not freed
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  std::size_t children = 0;
  std::size_t cacheFiles = 0;
};

/// To be called between two rounds, when nothing goes on.
Resources measureResources(std::uint64_t round);

/// What is not flat, a line each. The samples are those after the warm-up.
///
/// Descriptors, threads and children: each sample has what the first one has. Heap and anonymous
/// memory: the median of the last quarter of the samples exceeds that of the first by no more than
/// an allowance. A leak of n bytes a round raises it by n times three quarters of the rounds;
/// single samples that happen to be high, or low, change no median.
std::vector<std::string> judge(const std::vector<Resources>& samples);

/// The fewest samples that can be judged.
inline constexpr std::size_t kFewestSamples = 8;

}  // namespace Velantrix::Test::Soak
