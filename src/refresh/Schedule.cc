#include "refresh/Schedule.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509::Schedule {

namespace {

constexpr std::chrono::seconds kUnsaidLife = std::chrono::hours(24);
constexpr double kDefaultShare = 0.5;

// FNV-1a, its bits mixed once more: URIs that differ in a digit at the end are to be far apart. Nobody's
// secret hangs on it; who chooses URIs so that theirs fall together has his own hosts asked together.
std::uint64_t hashOf(std::string_view text) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3U;
  }
  hash ^= hash >> 33U;
  hash *= 0xff51afd7ed558ccdU;
  hash ^= hash >> 33U;
  hash *= 0xc4ceb9fe1a85ec53U;
  return hash ^ (hash >> 33U);
}

// From -1 to below 1.
double positionOf(const Uri& uri, const Time& thisUpdate) {
  const std::uint64_t hash =
      hashOf(uri.canonicalized() + ' ' + std::to_string(thisUpdate.seconds()));
  constexpr unsigned int kDroppedBits = 11;     // a double holds 53
  constexpr double kHalf = 4503599627370496.0;  // 2^52
  return static_cast<double>(hash >> kDroppedBits) / kHalf - 1.0;
}

double between(double least, double value, double most) noexcept {
  return std::isnan(value) ? kDefaultShare : std::clamp(value, least, most);
}

Time partOf(const Time& from, const Time& until, double share) noexcept {
  const double life = static_cast<double>(until.seconds()) - static_cast<double>(from.seconds());
  return after(from, std::chrono::seconds(std::llround(std::max(life, 0.0) * share)));
}

// Before which it has to be asked for, see kMargin.
Time latest(const Uri& uri, const Life& life) {
  constexpr std::chrono::seconds kDay = std::chrono::hours(24);
  if (life.nextUpdate <= after(life.thisUpdate, kDay)) return life.nextUpdate;
  constexpr double kQuarter = 0.25;
  const double earlier = (positionOf(uri, life.thisUpdate) + 1) / 2;
  const std::chrono::seconds margin =
      kMargin +
      std::chrono::seconds(std::llround(earlier * static_cast<double>(kMarginSpread.count())));
  return std::max(after(life.nextUpdate, -margin),
                  partOf(life.thisUpdate, life.nextUpdate, kQuarter));
}

}  // namespace

Time after(const Time& time, std::chrono::seconds pause) noexcept {
  return Time::then(time.seconds() + pause.count(), true);
}

Life lifeOf(const CertificateRevocationList& crl, const std::optional<Time>& confirmed) {
  const ASN1::RefGeneralizedTime last = crl.lastUpdate();
  if (last.empty()) return {};  // of no time
  const Time thisUpdate = last->asTime();
  const ASN1::RefGeneralizedTime next = crl.nextUpdate();
  return {.thisUpdate = thisUpdate,
          .nextUpdate = next.empty() ? after(thisUpdate, kUnsaidLife) : next->asTime(),
          .confirmed = confirmed};
}

double shareFor(const Uri& uri, const Time& thisUpdate, double share) {
  const double wanted = between(0, share, 1);
  const double spread = std::min({kSpread, wanted / 2, (1 - wanted) / 2});
  return wanted + spread * positionOf(uri, thisUpdate);
}

Time dueAt(const Uri& uri, const Life& life, double share, const Time& now) {
  const double part = shareFor(uri, life.thisUpdate, share);
  const Time first = std::min(partOf(life.thisUpdate, life.nextUpdate, part), latest(uri, life));
  if (!life.confirmed || *life.confirmed < first || *life.confirmed > now) return first;
  // The host was asked when it was time, and had nothing newer.
  return std::clamp(partOf(*life.confirmed, life.nextUpdate, part),
                    after(*life.confirmed, kLeastPause), after(*life.confirmed, kLongestPause));
}

bool isDue(const Uri& uri, const Life& life, double share, const Time& now) {
  return now >= life.nextUpdate || now >= dueAt(uri, life, share, now);
}

}  // namespace Velantrix::Crypto::PKX509::Schedule
