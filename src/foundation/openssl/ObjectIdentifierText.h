// The text of object identifiers, for those that OpenSSL has no name for and of any length.
//
// OBJ_obj2txt refuses identifiers of more than 586 octets, because it turns each arc into decimal
// digits in quadratic time. Here arcs that fit a machine word are converted directly and longer
// ones are bounded one by one, so the whole stays linear in the identifier's length.
#pragma once

#include <openssl/asn1.h>

#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Crypto {

/// The dotted form. An identifier with an arc of more than 1024 octets, which nobody assigns but
/// DER can hold, is "#" and the hexadecimal of its content octets instead.
std::string objectIdentifierText(const ASN1_OBJECT* object);

/// The content octets of an identifier in dotted form (RFC 4512's numericoid: two arcs at least, no
/// leading zeros). Nothing when @p text is anything else.
std::optional<std::string> objectIdentifierContent(std::string_view text);

}  // namespace Velantrix::Crypto
