// When the host of a CRL is worth asking for the next one.
//
//   if (Schedule::isDue(uri, life, share, now)) ask(uri);
//   wake(Schedule::dueAt(uri, life, share, now));
#pragma once

#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <chrono>
#include <optional>

namespace Velantrix::Crypto::PKX509::Schedule {

// To either side, as a part of a life.
inline constexpr double kSpread = 0.1;
// What lives longer than a day is asked for at the latest so long before it runs out, and up to as much
// earlier as the second one says: a host that answers once a day has then been asked in time. A quarter of
// the life goes by in any case.
inline constexpr std::chrono::seconds kMargin = std::chrono::hours(30);
inline constexpr std::chrono::seconds kMarginSpread = std::chrono::hours(6);
// Between two questions for one CRL.
inline constexpr std::chrono::seconds kLeastPause = std::chrono::minutes(5);
inline constexpr std::chrono::seconds kLongestPause = std::chrono::hours(6);
// After which a round is worth it whatever is known, and one that failed is tried again where nobody has
// made a mark against it.
inline constexpr std::chrono::seconds kRound = std::chrono::minutes(15);

struct Life {
  Time thisUpdate = {};
  Time nextUpdate = {};
  std::optional<Time> confirmed = {};  // when the host last said that it has just this
};

Time after(const Time& time, std::chrono::seconds pause) noexcept;

// One that does not say when the next one comes (which RFC 5280, 5.1.2.5, wants) lives for a day.
Life lifeOf(const CertificateRevocationList& crl, const std::optional<Time>& confirmed);

// At which part of the life of a CRL that the URI gave its host is asked: the share, moved by up to kSpread
// to either side and staying between 0 and 1. The normal form of the URI and thisUpdate decide, and nothing
// else: no machine, no process and no chance.
double shareFor(const Uri& uri, const Time& thisUpdate, double share);

// When its host is worth asking, which may have gone by. A confirmation from the future is none.
Time dueAt(const Uri& uri, const Life& life, double share, const Time& now);

// What has run out is always due.
bool isDue(const Uri& uri, const Life& life, double share, const Time& now);

}  // namespace Velantrix::Crypto::PKX509::Schedule
