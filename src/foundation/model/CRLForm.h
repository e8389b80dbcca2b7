// The rules for the encoding of a CRL (RFC 5280, 5.1 and 5.2) that OpenSSL's decoder leaves open.
#pragma once

#include <openssl/x509.h>

namespace Velantrix::Crypto {
class CompactCRL;
}

namespace Velantrix::Crypto::PKX509 {

/// The first rule that the CRL breaks, with its section; null when it keeps all of them. It walks
/// through the entries, which nobody else may sort meanwhile.
const char* brokenRuleOf(X509_CRL* crl);
/// The same for one in its compact form, which has been walked through: the entries that break a rule are
/// known.
const char* brokenRuleOf(const CompactCRL& crl);

}  // namespace Velantrix::Crypto::PKX509
