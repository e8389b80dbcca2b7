// Extensions that say all they say by being there: their value is NULL.
#pragma once

#include <openssl/x509.h>

#include <cstddef>
#include <string_view>

namespace Velantrix::Crypto::PKX509::Revocation {

inline bool holdsNull(const X509_EXTENSION* extension) noexcept {
  // The getter takes a non-const pointer but only reads.
  const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
  const auto* data = reinterpret_cast<const char*>(ASN1_STRING_get0_data(value));
  using namespace std::string_view_literals;
  return std::string_view(data, static_cast<std::size_t>(ASN1_STRING_length(value))) == "\x05\0"sv;
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
