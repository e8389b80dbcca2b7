// Times as RFC 5280 has them written: to the second, in UTC, with nothing left out or added
// (4.1.2.5.1, 4.1.2.5.2).
#pragma once

#include <velantrix/Time.h>

#include <openssl/asn1.h>

#include <optional>

namespace Velantrix::Crypto::PKX509 {

/// Nothing for a time that is written in any other way, or that does not exist.
std::optional<Time> strictTime(const ASN1_TIME* native);
/// Whether it is written so, and exists.
bool isStrictTime(const ASN1_TIME* native) noexcept;

}  // namespace Velantrix::Crypto::PKX509
