// How long verifications took, in memory that does not grow.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace Velantrix::Test::Soak {

class Latencies {
 public:
  using Duration = std::chrono::microseconds;

  void add(Duration time) {
    ++counts_.at(bucketOf(time));
    ++count_;
    longest_ = std::max(longest_, time);
  }
  std::uint64_t count() const { return count_; }
  Duration longest() const { return longest_; }

  /// Not exceeded by that share of them, to a twentieth of its value.
  Duration quantile(double share) const {
    auto left = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_)));
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      if (counts_.at(i) >= left) {
        const auto end = static_cast<Duration::rep>(std::pow(kStep, static_cast<double>(i + 1)));
        return std::min(Duration(end), longest_);
      }
      left -= counts_.at(i);
    }
    return longest_;
  }

 private:
  static constexpr double kStep = 1.05;
  static constexpr std::size_t kBuckets = 400;  // up to five minutes

  static std::size_t bucketOf(Duration time) {
    const double value = std::max(1.0, static_cast<double>(time.count()));
    return std::min(kBuckets - 1, static_cast<std::size_t>(std::log(value) / std::log(kStep)));
  }

  std::array<std::uint64_t, kBuckets> counts_{};
  std::uint64_t count_ = 0;
  Duration longest_{0};
};

}  // namespace Velantrix::Test::Soak
