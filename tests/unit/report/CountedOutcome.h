// Which outcome of a verification the library has counted.
//
//   const Statistics before = Statistics::snapshot();
//   verifier.isValid();
//   EXPECT_EQ(outcomeCountedSince(before), verifier.report().outcome());
#pragma once

#include <pkx509/Rule.h>
#include <pkx509/Statistics.h>

#include <cstdint>
#include <optional>
#include <utility>

namespace Velantrix::Test {

/// Of one verification; none where there was none, or more than one.
inline std::optional<Crypto::PKX509::Outcome> outcomeCountedSince(
    const Crypto::PKX509::Statistics& before) {
  using Crypto::PKX509::Outcome;
  using Crypto::PKX509::Statistics;
  using Counter = Statistics::Counter;
  constexpr std::pair<Counter, Outcome> kOutcomes[] = {
      {Counter::kVerificationsValid, Outcome::kValid},
      {Counter::kVerificationsPermanent, Outcome::kPermanent},
      {Counter::kVerificationsTemporary, Outcome::kTemporary},
      {Counter::kVerificationsLocal, Outcome::kLocal}};
  const Statistics now = Statistics::snapshot();
  std::optional<Outcome> counted;
  std::uint64_t all = 0;
  for (const auto& [counter, outcome] : kOutcomes) {
    const std::uint64_t grown = now.of(counter) - before.of(counter);
    if (grown != 0) counted = outcome;
    all += grown;
  }
  return all == 1 ? counted : std::nullopt;
}

}  // namespace Velantrix::Test
