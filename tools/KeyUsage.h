// The names of key usages.
#pragma once

#include <openssl/x509v3.h>

#include <array>

namespace Velantrix::Tool {

struct NamedBit {
  unsigned int mask;
  const char* name;
};

/// OpenSSL's `KU_*` bits by the names of RFC 5280, 4.2.1.3, in its order.
inline constexpr std::array kKeyUsages = {
    NamedBit{KU_DIGITAL_SIGNATURE, "digitalSignature"},
    NamedBit{KU_NON_REPUDIATION, "nonRepudiation"},
    NamedBit{KU_KEY_ENCIPHERMENT, "keyEncipherment"},
    NamedBit{KU_DATA_ENCIPHERMENT, "dataEncipherment"},
    NamedBit{KU_KEY_AGREEMENT, "keyAgreement"},
    NamedBit{KU_KEY_CERT_SIGN, "keyCertSign"},
    NamedBit{KU_CRL_SIGN, "cRLSign"},
    NamedBit{KU_ENCIPHER_ONLY, "encipherOnly"},
    NamedBit{KU_DECIPHER_ONLY, "decipherOnly"},
};

}  // namespace Velantrix::Tool
