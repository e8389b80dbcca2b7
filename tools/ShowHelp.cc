#include "ShowHelp.h"

namespace Velantrix::Tool {

std::string showHelp() {
  return R"(
Nothing is verified: what is shown is what an object says of itself. Objects are shown in the order
of the file; keys and whatever else a file holds are passed over.

Output:
  For each certificate and CRL its facts, one on a line. Numbers of certificates and CRLs are
  hexadecimal, times are in UTC. A certificate without a key usage is "not restricted". The line of a
  fact that cannot be read says what is broken.
  With --json an array of an object for each certificate and CRL. What an object does not have is
  null, and "problems" says by the key of a fact what is broken in it.
  Of a certificate: file, type ("certificate"), subject, issuer, serial, notBefore, notAfter,
  keyAlgorithm, keyBits, subjectKeyIdentifier, authorityKeyIdentifier, keyUsage, ca, pathLength,
  selfSigned, crlDistributionPoints (objects with fullName, relativeName, reasons, crlIssuers), ocsp,
  emails, problems.
  Of a CRL: file, type ("crl"), issuer, crlNumber, baseCRLNumber, thisUpdate, nextUpdate,
  authorityKeyIdentifier, issuingDistributionPoint (an object with fullName, relativeName, onlyUser,
  onlyCA, onlyAttribute, indirect, reasons), entries, unhandledCriticalExtension, problems.

Exit status:
  0  Everything could be read.
  2  Wrong usage, or something that cannot be read: a file, a certificate or CRL in it, or a part of
     a certificate. A line on standard error names it, or the line of the fact does. The rest is shown
     all the same.

Examples:
  pkx509 show person.pem ca.crl
  pkx509 show --json chain.pem
  openssl s_client -showcerts -connect mx.example.com:465 </dev/null | pkx509 show -
)";
}

}  // namespace Velantrix::Tool
