// What a UTCTime or a GeneralizedTime stands for, in seconds since the epoch.
#pragma once

#include <openssl/asn1.h>

#include <cstdint>
#include <optional>

namespace Velantrix::Crypto {

/// Nothing for what OpenSSL does not take for a time; null is none either.
std::optional<std::int64_t> secondsOf(const ASN1_TIME* time) noexcept;

}  // namespace Velantrix::Crypto
