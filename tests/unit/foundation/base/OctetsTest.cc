#include "foundation/base/Octets.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <utility>

namespace Velantrix {
namespace {

// Small ones, and those in large pages.
TEST(Octets, WhateverTheSize_AreKeptWhileTheyGrowAndMove) {
  constexpr std::size_t kEach = 991;
  Octets octets;
  for (const std::size_t size : {1U, 1000U, 4U << 20, 5U << 20}) {
    octets.resize(size);
    octets[size - 1] = 0xa5;
    if (size > kEach) octets[size - kEach] = 0x5a;
  }
  const unsigned char* const place = octets.data();
  const Octets moved = std::move(octets);
  EXPECT_EQ(moved.data(), place);
  for (const std::size_t size : {1U, 1000U, 4U << 20, 5U << 20}) {
    EXPECT_EQ(moved[size - 1], 0xa5);
    if (size > kEach) {
      EXPECT_EQ(moved[size - kEach], 0x5a);
    }
  }
}

TEST(Octets, LargeBlocks_BeginAPage) {
  const Octets octets(std::size_t{5} << 20);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(octets.data()) % (std::uintptr_t{2} << 20), 0U);
}

}  // namespace
}  // namespace Velantrix
