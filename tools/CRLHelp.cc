#include "CRLHelp.h"

namespace Velantrix::Tool {

std::string crlHelp() {
  return R"(
A CRL that is in the cache, /var/spool/crypto/crl_cache, and has not run out is taken from there.
Otherwise it is fetched, and stored in the cache, exactly as a verification does it: HTTP/1.0, port 80
unless the URI names another, query and fragment not sent, at most 15 s and 64 MiB, no redirects; for
https the client certificate in /opsadmin/etc/cert/server/apps is shown and the server not verified.

Nothing is verified: whoever answers for the host decides what is shown.

Output:
  The facts of each CRL, as "pkx509 show" prints them, with the URI in the place of the file, and where
  it came from. Log lines go to standard error, as "URI: <priority> text", and so does a line that says
  that the cache cannot be read or written. With --json an array of an object for each CRL, with the keys
  of "pkx509 show" and source ("cache" or "network").

Exit status:
  0  There was a CRL for each URI.
  1  For at least one there was none. A line on standard error says so.
  2  Wrong usage, or a CRL of which a part is broken.

Examples:
  pkx509 crl http://crl.example.com/ca.crl
  pkx509 show --json person.pem |
    jq -r '.[].crlDistributionPoints[].fullName[] | select(startswith("URI:")) | .[4:]' |
    xargs pkx509 crl
)";
}

}  // namespace Velantrix::Tool
