#include "AddHelp.h"

namespace Velantrix::Tool {

std::string addHelp() {
  return R"(
The first certificate of CERT is written to a PEM file in DIR that is named by a hash of ADDRESS. A
file of that name is replaced, whole or not at all: a directory has one certificate for an address.
ADDRESS is taken as it is, letter case included. DIR has to be there.

Nothing is verified. A certificate that does not have the address itself is stored all the same, and
a line on standard error says so.

Output:
  A line that says what was stored.
  With --json an array of one object: file, email, directory, subject, issuer, serial.

Exit status:
  0  The certificate was stored.
  2  Wrong usage, or CERT cannot be read, or DIR cannot be written to. A line on standard error says
     so, and what was stored before stands.

Examples:
  pkx509 add --email person@example.com person.pem --dir /var/lib/mail/certs
)";
}

}  // namespace Velantrix::Tool
