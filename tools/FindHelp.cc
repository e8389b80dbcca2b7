#include "FindHelp.h"

namespace Velantrix::Tool {

std::string findHelp() {
  return R"(
Either --email or --subject says what is looked for, and either --dir or --ldap where. A DIR holds PEM
files that are named by a hash: of the subject as "openssl rehash" names them, of the mail address as
"pkx509 add" does. An LDAP directory has certificates in the entry with their subject's name, and by mail
address in entries below --base, which is needed then. ADDRESS is taken as it is, letter case included. DN is a name as "pkx509 show"
prints it, its most specific part first: CN=Someone,O=Example,C=DE.

Nothing is verified: whoever can write to a directory decides what is found there, and different
addresses and names may share a hash. Look at the facts, and verify a certificate before it is used.

Output:
  For each certificate its facts, as "pkx509 show" prints them, with DIR or the LDAP directory's URI in
  the place of the file.
  With --json an array of an object for each certificate, with the keys of "pkx509 show".

Exit status:
  0  At least one certificate was found.
  1  None was found. A line on standard error says so.
  2  Wrong usage, or something that cannot be read: the directory, a file in it, or a part of a
     certificate. A line on standard error names it, or the line of the fact does.

Examples:
  pkx509 find --email person@example.com --dir /var/lib/mail/certs
  pkx509 find --email person@example.com --ldap ldaps://directory.example.com --base o=Example
  pkx509 find --json --subject 'CN=Root,O=Example Mail' --dir /opsadmin/etc/cert/server/ca
)";
}

}  // namespace Velantrix::Tool
