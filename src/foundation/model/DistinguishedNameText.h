// The text form of names (RFC 4514); see velantrix/DistinguishedName.h for what it looks like.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

std::string distinguishedNameText(const X509_NAME* name);

/// Null when @p text is no name, or is one that OpenSSL cannot hold. Text values become
/// UTF8Strings.
Owned<X509_NAME> parseDistinguishedName(std::string_view text);

}  // namespace Velantrix::Crypto::PKX509
