// What a step costs, in a child process of its own, and whether that is in proportion to what bare
// OpenSSL needs for the same input.
//
//   EXPECT_TRUE(costInProportion([&] { decodeCRL(data, size); },
//                                [&] { Owned<X509_CRL>(d2i_X509_CRL(nullptr, &data, size)); }));
//
// A child process starts with what its parent holds, and nothing that it allocates or frees is left
// to the next measurement. It has no threads but the one that measures, and ends without
// destructors. What a step finds out is lost with it, unless it throws.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>

namespace Velantrix::Test {

/// The bound of `costInProportion`: a factor over the cost of bare OpenSSL, and what is allowed
/// beside that, of memory and of processor time.
inline constexpr int kCostFactor = 3;
inline constexpr std::size_t kMemoryAllowance = std::size_t{50} * 1000 * 1000;
inline constexpr std::chrono::milliseconds kProcessorAllowance{500};

struct Cost {
  std::size_t memory = 0;                  ///< by how many bytes the process grew at most
  std::chrono::milliseconds processor{0};  ///< its processor time, user's and system's
};

/// Runs `step` in a child process and returns what it costs there.
/// @throws std::runtime_error when the step throws, with its words, or ends the process
Cost costOf(const std::function<void()>& step);

/// False where a sanitizer makes costs its own.
bool costsCanBeMeasured();

/// Is `ours` within the bound?
inline testing::AssertionResult inProportion(const Cost& ours, const Cost& bare) {
  const bool memory = ours.memory <= kMemoryAllowance + kCostFactor * bare.memory;
  const bool processor = ours.processor <= kProcessorAllowance + kCostFactor * bare.processor;
  auto result = memory && processor ? testing::AssertionSuccess() : testing::AssertionFailure();
  return result << ours.memory / 1000 << " kB and " << ours.processor.count()
                << " ms of processor time, where bare OpenSSL takes " << bare.memory / 1000
                << " kB and " << bare.processor.count() << " ms";
}

/// Are the costs of `ours` within the bound that those of `bare` give? Where costs cannot be
/// measured `ours` is run all the same, for what a sanitizer has to say about it.
inline testing::AssertionResult costInProportion(const std::function<void()>& ours,
                                                 const std::function<void()>& bare) {
  if (costsCanBeMeasured()) return inProportion(costOf(ours), costOf(bare));
  ours();
  return testing::AssertionSuccess();
}

}  // namespace Velantrix::Test
