#include "foundation/base/RandomOctets.h"

#include <array>
#include <gtest/gtest.h>
#include <set>

namespace Velantrix {
namespace {

using Octets = std::array<unsigned char, 40>;

TEST(RandomOctets, EachOctet_IsAnotherOneEachTime) {
  std::array<std::set<unsigned char>, Octets().size()> seen;
  for (int i = 0; i < 50; ++i) {
    Octets octets{};
    ASSERT_TRUE(fillWithRandom(octets.data(), octets.size()));
    for (std::size_t place = 0; place < octets.size(); ++place) seen[place].insert(octets[place]);
  }
  for (const std::set<unsigned char>& values : seen) EXPECT_GT(values.size(), 20U);
}

TEST(RandomOctets, NothingBehindThem_IsTouched) {
  Octets octets{};
  ASSERT_TRUE(fillWithRandom(octets.data(), octets.size() - 8));
  for (std::size_t place = octets.size() - 8; place < octets.size(); ++place) {
    EXPECT_EQ(octets[place], 0);
  }
}

}  // namespace
}  // namespace Velantrix
