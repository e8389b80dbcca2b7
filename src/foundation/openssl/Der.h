// Writing the few pieces of DER that are put together by hand.
#pragma once

#include <string>
#include <string_view>

namespace Velantrix::Crypto {

/// Appends a universal type with its length and content.
/// @param tag         a V_ASN1_* number
/// @param constructed true for SEQUENCE and SET
void appendDer(std::string& out, int tag, bool constructed, std::string_view content);

/// The bytes of @p text as OpenSSL's functions want them.
inline const unsigned char* octets(std::string_view text) noexcept {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace Velantrix::Crypto
