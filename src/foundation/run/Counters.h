// Counting for `Statistics`.
//
//   count(Statistics::Counter::kFetches);
//
//   const CountedSince since;                                    // a test
//   ...
//   EXPECT_EQ(since.of(Statistics::Counter::kFetches), 1U);
#pragma once

#include <pkx509/Statistics.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

// Takes no lock, and threads do not wait for each other's caches.
void count(Statistics::Counter counter, std::uint64_t by = 1) noexcept;

// What the cache of fetched CRLs holds, by who has just counted it.
void noteCacheSize(std::uint64_t files, std::uint64_t bytes) noexcept;

// What was counted since it was made, in all threads.
class CountedSince {
 public:
  std::uint64_t of(Statistics::Counter counter) const noexcept {
    return Statistics::snapshot().of(counter) - before_.of(counter);
  }

 private:
  Statistics before_ = Statistics::snapshot();
};

// How a counter is told. Texts are literals of which none needs an escape.
struct CounterFacts {
  Statistics::Counter counter;
  std::string_view name;   // of the metric, without "pkx509_"; several counters may share one
  std::string_view label;  // what tells them apart, empty where there is only one
  std::string_view value;  // of the label
  std::string_view help;
};

// All of them, in the order in which they are told: those of one metric stand together.
extern const std::array<CounterFacts, Statistics::kCounters> kCounterFacts;

}  // namespace Velantrix::Crypto::PKX509
