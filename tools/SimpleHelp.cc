#include "SimpleHelp.h"

#include "KeyUsage.h"

#include <string_view>

namespace Velantrix::Tool {

namespace {

constexpr std::string_view kBeforeNames = R"(
The first certificate of CERT is verified as daemons verify it that have no trust store of their own:
trusted certificates come from /opsadmin/etc/cert/server/ca and CRLs from
/opsadmin/etc/cert/server/crl, both of them directories of PEM files that are named by a hash.
Intermediate certificates have to stand in the former; others in CERT play no part.

NAMES are key usages, in any case of letters and separated by commas:
)";

constexpr std::string_view kAfterNames = R"(
Without --require-key-usage a key usage that does not fit is a log line and nothing more. A
certificate that does not restrict its key usage always fits.

Output:
  The verdict, OpenSSL's code and text for it. The code is -1 when the key usage was refused or when
  the verification could not be carried out. Log lines that explain it go to standard error, as
  "CERT: <priority> text".
  With --json everything goes to standard output, as an array of one object: file, verdict ("valid"
  or "invalid"), code, text, log (objects with priority, text). JSON is never coloured, and with
  NO_COLOR set in the environment or TERM being "dumb", --color=auto is "never".

Exit status:
  0  The certificate is valid.
  1  It is not, or the verification could not be carried out.
  2  Wrong usage, or CERT cannot be read. A line on standard error says so.

Examples:
  pkx509 simple person.pem
  pkx509 simple --key-usage digitalSignature,nonRepudiation --require-key-usage person.pem
)";

}  // namespace

std::string simpleHelp() {
  std::string help(kBeforeNames);
  for (const NamedBit& usage : kKeyUsages) help.append("  ").append(usage.name).append("\n");
  return help.append(kAfterNames);
}

}  // namespace Velantrix::Tool
