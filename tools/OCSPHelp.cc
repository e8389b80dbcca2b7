#include "OCSPHelp.h"

namespace Velantrix::Tool {

std::string ocspHelp() {
  return R"(
Asks about the first certificate of CERT. FILE holds its issuer, and whatever other certificates are on
its path; the others in CERT count as well. Without --uri the responders that the certificate names are
tried until one can be connected to, provided that the issuer's signature is on the certificate: what a
forgery names is not connected to.

An answer counts when it is signed by the issuer or another certificate of the path, or by one that came
with the answer and is valid against the trusted certificates of DIR. It is asked and judged exactly as
in a verification: HTTP/1.0 POST, port 80 unless the URI names another; the times in the answer are not
compared with the clock, and an answer that does not mention the certificate means good.

Output:
  A line with the answer, its code and the responder: good (0), revoked (1), no usable answer (2, 101
  the responder's certificate is not valid, 117 the signature is wrong, 118 the responder's certificate
  is unknown). Log lines go to standard error, as "CERT: <priority> text". With --json an array of one
  object: file, uri (null when no responder was reached), answer ("good", "revoked" or "none"), code,
  text, log (objects with priority, text).

Exit status:
  0  Good.
  1  Revoked.
  2  No usable answer, wrong usage, or something that cannot be read.

Examples:
  pkx509 ocsp --chain intermediates.pem person.pem
  pkx509 ocsp --chain ca.pem --uri http://ocsp.example.com/ --timeout 5 person.pem
)";
}

}  // namespace Velantrix::Tool
