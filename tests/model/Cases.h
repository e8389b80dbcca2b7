// Which cases a run of random ones has.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>

namespace Velantrix::Test {

/// The seed of the first case, of the command line's --gtest_random_seed.
inline std::uint64_t firstSeed() {
  const int given = testing::GTEST_FLAG(random_seed);
  return given > 0 ? static_cast<std::uint64_t>(given) : 1;
}

/// How many cases are run: so many, unless the environment says otherwise.
inline std::uint64_t caseCount(std::uint64_t usual) {
  const char* const given = std::getenv("PKX509_MODEL_CASES");
  return given == nullptr ? usual : std::strtoull(given, nullptr, 10);
}

}  // namespace Velantrix::Test
