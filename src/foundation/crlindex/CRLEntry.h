// One entry of a CRL (RFC 5280, 5.1.2.6 and 5.3).
#pragma once

#include <cstddef>
#include <string_view>

namespace Velantrix::Crypto {

/// What an entry says; its parts are borrowed.
struct CRLEntry {
  static constexpr int kNoReason = -1;

  const unsigned char* begin;
  const unsigned char* end;
  std::string_view serial;  ///< the content of the INTEGER
  bool hasExtensions = false;
  bool unhandledCritical = false;  ///< an extension other than certificate issuer is critical
  int reason = kNoReason;          ///< 5.3.1
  std::string_view certificateIssuer =
      {};  ///< 5.3.3: the DER of its names; empty where there is none
};

/// The longest serial number that is read. 4.1.2.2 has at most 20 octets.
inline constexpr std::size_t kMostSerialOctets = 32;

/// Reads the entry at @p position. False for what is not certain to be read by OpenSSL and everybody else
/// in one way: what is not DER, a date that is not written as 5.1.2.6 wants it or does not exist, a reason
/// or an issuer that stands there twice, a reason that is none.
bool readCRLEntry(const unsigned char* position, const unsigned char* end,
                  CRLEntry& entry) noexcept;

/// The serial number of an entry that has been read before.
std::string_view serialOfCRLEntry(const unsigned char* position, const unsigned char* end) noexcept;

}  // namespace Velantrix::Crypto
