// Counts what rounds did, and says at the end what came of them. It does not grow meanwhile.
#pragma once

#include "soak/Latencies.h"
#include "soak/Resources.h"
#include "soak/Round.h"
#include "soak/Servers.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Test::Soak {

class Report {
 public:
  explicit Report(std::uint64_t seed) : seed_(seed) {}

  /// A verdict of the round that goes on, and how long it took.
  void add(const Round& round, int verdict, const std::set<int>& possible,
           Latencies::Duration time);
  /// The end of the round.
  void add(const Round& round, Latencies::Duration time);
  /// Something that must not be. The first ones are shown at once.
  void complain(const std::string& text);

  std::uint64_t rounds() const { return rounds_; }
  bool passed() const { return complaints_ == 0; }

  void print(std::ostream& out, std::chrono::steady_clock::duration time,
             const Servers::Counts& counts, std::uint64_t logLines, const Resources& atStart,
             const std::vector<Resources>& samples) const;

 private:
  static constexpr std::size_t kTruths = 7;
  static constexpr std::size_t kCodes = 128;  ///< OpenSSL's, and one below them

  std::uint64_t seed_;
  std::uint64_t rounds_ = 0;
  std::uint64_t complaints_ = 0;
  std::uint64_t certain_ = 0;  ///< verdicts where only one was possible
  std::array<std::array<std::uint64_t, kCodes>, kTruths> verdicts_{};
  std::array<std::uint64_t, 6> cache_{};
  std::uint64_t outOfTime_ = 0;
  Latencies well_;
  Latencies disturbed_;
};

}  // namespace Velantrix::Test::Soak
