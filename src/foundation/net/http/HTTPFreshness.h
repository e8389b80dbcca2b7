// How long a server lets its answer be kept (RFC 9111, 5).
//
//   freshnessOf({.cacheControl = "public, max-age=600"});  // 600 s
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Velantrix::LW::HTTP {

/// Fields of an answer's header; empty for those that it does not have.
struct FreshnessFields {
  std::string cacheControl = {};
  std::string expires = {};
  std::string date = {};
};

/// Longer than that nobody is believed.
inline constexpr std::chrono::seconds kMaximumFreshness = std::chrono::hours(24);

/// None where the server does not say.
std::optional<std::chrono::seconds> freshnessOf(const FreshnessFields& fields);

}  // namespace Velantrix::LW::HTTP
