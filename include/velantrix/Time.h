/// @file
/// A point in time, in whole seconds.
///
/// @code
///   const Time dayAgo = Time::then(-24 * 3600, false);
///   if (File::Path("/some/file").status(true).creationTime() < dayAgo) { ... }
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <compare>
#include <cstdint>

namespace Velantrix {

/// Seconds since the epoch, 1970-01-01 00:00:00 UTC, without leap seconds (POSIX time). Negative
/// before it.
///
/// Whole seconds are what certificates and CRLs are written in (RFC 5280, 4.1.2.5), so a comparison
/// here agrees with OpenSSL's `X509_cmp_time`. A plain value: cheap to copy, safe to read from any
/// thread.
class PKX509_EXPORT Time {
 public:
  /// The epoch itself.
  constexpr Time() noexcept = default;

  /// The system's wall clock, which may be set back at any moment.
  static Time now() noexcept;

  /// @param seconds    an offset, negative for earlier
  /// @param sinceEpoch true counts from the epoch, false from now
  ///
  /// An offset that leaves the range of 64 bits gives the first or last time that there is.
  static Time then(long seconds, bool sinceEpoch) noexcept;

  constexpr std::int64_t seconds() const noexcept { return seconds_; }

  constexpr bool operator==(const Time&) const noexcept = default;
  constexpr std::strong_ordering operator<=>(const Time&) const noexcept = default;

 private:
  constexpr explicit Time(std::int64_t seconds) noexcept : seconds_(seconds) {}

  std::int64_t seconds_ = 0;
};

}  // namespace Velantrix
