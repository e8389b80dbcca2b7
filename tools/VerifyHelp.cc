#include "VerifyHelp.h"

#include "OptionValues.h"

#include <cstddef>
#include <string_view>

namespace Velantrix::Tool {

namespace {

constexpr std::string_view kBeforeFlags = R"(
The first certificate of a FILE is the one verified; others in the same file count as untrusted
certificates, from which the path may be built. CRLs are looked for in every --crl-dir, and in
/opsadmin/etc/cert/server/crl for certificates without CRL distribution points. Directories hold PEM
files that are named by a hash, as "openssl rehash" names them.

With --ldap certificates and CRLs are looked for in that LDAP directory as well, in the entry with the
name of whom they belong to. What it gives is trusted like what is in --ca-dir: a root found there is a
trust anchor. Without --bind-dn the tool binds with an empty name and no password; with a DN, whatever
it is, it does not bind at all and searches as nobody. ldaps servers have to show a certificate that
OpenSSL's default directory of trusted certificates vouches for. With the flag EXPLICIT_POLICY a path
must have one of the policies.

TIME is in UTC: 2026-11-21T05:00:00Z, 2026-11-21 (the begin of that day), or @ and seconds since the
epoch.

NAME is that of a constant of OpenSSL, with or without X509_V_FLAG_, in any case, with "_" or "-":
)";

constexpr std::string_view kAfterFlags = R"(
Set by default are CRL_CHECK, CRL_CHECK_ALL, X509_STRICT, POLICY_CHECK, EXTENDED_CRL_SUPPORT and
USE_DELTAS. --flag and --no-flag work in the order in which they are given.

Output:
  For each certificate its verdict, OpenSSL's code and text for it, the depth at which it failed and
  the path that was built. Log lines that explain it go to standard error, as "FILE: <priority> text".
  With --json everything goes to standard output, as an array of an object for each certificate:
  file, verdict ("valid" or "invalid"), code, text, depth, chain (objects with subject, issuer,
  serial), log (objects with priority, text). JSON is never coloured, and --color=auto is "never"
  when NO_COLOR is set in the environment or TERM is "dumb".

Exit status:
  0  All certificates are valid.
  1  At least one is not.
  2  Wrong usage, or something that cannot be read: a certificate, a directory, a malformed CRL in a
     directory. A line on standard error names it. Certificates that could be verified are reported
     all the same, the others are not.

Examples:
  pkx509 verify person.pem
  pkx509 verify --ca-dir /etc/ssl/certs --crl-dir crls --untrusted chain.pem person.pem
  pkx509 verify --json --at 2026-11-21T05:00:00Z a.pem b.der
  openssl s_client -showcerts -connect mx.example.com:465 </dev/null | pkx509 verify -
)";

// The names in lines of at most `width` columns, each with two blanks in front.
std::string flagLines(std::size_t width) {
  std::string lines;
  std::string line;
  for (const std::string_view name : flagNames()) {
    if (!line.empty() && line.size() + 2 + name.size() > width) {
      lines += line + '\n';
      line.clear();
    }
    line.append(line.empty() ? "  " : " ").append(name);
  }
  return lines + line + '\n';
}

}  // namespace

std::string verifyHelp() {
  return std::string(kBeforeFlags).append(flagLines(98)).append(kAfterFlags.substr(1));
}

}  // namespace Velantrix::Tool
