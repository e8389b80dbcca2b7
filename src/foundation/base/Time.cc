#include <velantrix/Time.h>

#include <chrono>
#include <limits>

namespace Velantrix {

Time Time::now() noexcept {
  using std::chrono::floor;
  using std::chrono::seconds;
  return Time(floor<seconds>(std::chrono::system_clock::now()).time_since_epoch().count());
}

Time Time::then(long seconds, bool sinceEpoch) noexcept {
  if (sinceEpoch) return Time(seconds);
  std::int64_t sum = 0;
  if (__builtin_add_overflow(now().seconds(), std::int64_t{seconds}, &sum)) {
    using Limits = std::numeric_limits<std::int64_t>;
    sum = seconds < 0 ? Limits::min() : Limits::max();
  }
  return Time(sum);
}

}  // namespace Velantrix
