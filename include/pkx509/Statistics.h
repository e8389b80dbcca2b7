/// @file
/// What the library has done in this process since it was loaded, in numbers.
///
/// @code
///   const Statistics before = Statistics::snapshot();
///   ...
///   const Statistics after = Statistics::snapshot();
///   answer(200, after.asPrometheusText({{"process", "smtp-in"}}));
///   using Counter = Statistics::Counter;
///   if (after.of(Counter::kFetchFailures) > before.of(Counter::kFetchFailures)) log("no CRLs");
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// A plain value: the counters of one moment. They only grow, from 0 at the start of the process; a
/// child that is forked goes on from its parent's. Counting takes no lock and makes nobody wait. Counters
/// are read one after the other, so that two of one snapshot may be apart by what happens meanwhile.
///
/// A verification is counted when it ends, by the outcome that its report has: those that a program
/// starts, and not those that are nested in them. A look-up is one question to one source. What was
/// answered from memory, and what our own bounds and policies have refused, is none; where one source
/// asks others of the library, as a lookup method for a directory does, theirs is the one that counts.
class PKX509_EXPORT Statistics {
 public:
  /// New ones are added at the end.
  enum class Counter : unsigned char {
    kVerificationsValid,
    /// Not valid, and waiting will not help. A `Verifier` has no second look at the path for the count, as
    /// its report has: what is wrong there for good beside a failure that waiting may cure is not seen.
    kVerificationsPermanent,
    kVerificationsTemporary,
    kVerificationsLocal,
    kLookupsDirectory,  ///< questions to sources, and how many of them found something
    kHitsDirectory,
    kLookupsMethod,
    kHitsMethod,
    kLookupsLDAP,
    kHitsLDAP,
    kLookupsCache,
    kHitsCache,
    kLookupsCRLServer,
    kHitsCRLServer,
    kLookupsOCSPResponder,
    kHitsOCSPResponder,
    kFetches,                ///< requests to hosts of CRLs and to OCSP responders
    kNotModified,            ///< of these, answered by "not modified"
    kFetchFailures,          ///< of these, without a whole answer
    kFetchesSpared,          ///< not made, since the host had failed just before
    kFetchesShared,          ///< not made, since another thread or process made it
    kNetworkBytes,           ///< of what hosts of CRLs and OCSP responders sent
    kNetworkMicroseconds,    ///< of waiting for name servers, hosts and those who fetch the same
    kProcessorMicroseconds,  ///< of the threads that verified, while they did
    kCacheStored,            ///< CRLs that were put into the cache
    kCacheRemoved,           ///< that made way for others, had run out, or were forged
  };
  static constexpr std::size_t kCounters = static_cast<std::size_t>(Counter::kCacheRemoved) + 1;

  /// As of now.
  static Statistics snapshot() noexcept;

  std::uint64_t of(Counter counter) const noexcept {
    return values_[static_cast<std::size_t>(counter)];
  }

  /// How many files the cache of fetched CRLs held, and how many octets they had, when this process last
  /// put one there, which looks at all of them. None when it has not: a snapshot looks at no file.
  const std::optional<std::uint64_t>& cacheFiles() const noexcept { return cacheFiles_; }
  const std::optional<std::uint64_t>& cacheBytes() const noexcept { return cacheBytes_; }

  /// In the text format of Prometheus, version 0.0.4, with a HELP and a TYPE line for each name; names
  /// begin with "pkx509_". Times are in seconds. What is none is left out. One snapshot is one
  /// exposition, and ends with a line feed.
  ///
  /// @param labels go to every sample, beside "outcome" and "source": where several processes of a machine
  ///               write for one collector, something has to tell them apart. Values may be any text in
  ///               UTF-8.
  /// @throws Exception when a name is none that Prometheus takes, or one of those two
  std::string asPrometheusText(const std::map<std::string, std::string>& labels = {}) const;

 private:
  std::array<std::uint64_t, kCounters> values_{};
  std::optional<std::uint64_t> cacheFiles_ = {};
  std::optional<std::uint64_t> cacheBytes_ = {};
};

}  // namespace Velantrix::Crypto::PKX509
