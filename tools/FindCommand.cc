// `pkx509 find`: looks for certificates by mail address or by subject.
#include "CertificateSource.h"
#include "Facts.h"
#include "FactsOutput.h"
#include "Input.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <velantrix/DistinguishedName.h>

#include <algorithm>
#include <exception>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Tool {

using Crypto::PKX509::DistinguishedName;
using Crypto::PKX509::RefCertificate;

namespace {

struct FindOptions {
  std::optional<std::string> email;
  std::optional<std::string> subject;
  std::optional<std::string> directory;
  std::optional<std::string> ldap;
  std::optional<std::string> base;
  bool json = false;
};

// Finds what is wrong with the question before anything is opened.
void prepare(const FindOptions& options) {
  if (options.email.has_value() == options.subject.has_value()) {
    throw ToolError("give either --email or --subject");
  }
  if (options.directory.has_value() == options.ldap.has_value()) {
    throw ToolError("give either --dir or --ldap");
  }
  if (options.base && !options.ldap) throw ToolError("--base goes with --ldap");
  if (options.ldap && options.email.has_value() != options.base.has_value()) {
    throw ToolError("with --ldap, --base goes with --email");
  }
  if (options.email) {
    requireEmailAddress(*options.email);
  } else if (DistinguishedName(*options.subject).empty()) {
    throw ToolError("--subject: \"" + *options.subject +
                    "\" is no name; give one like CN=Someone,O=Example,C=DE");
  }
}

CertificateSource sourceOf(const FindOptions& options) {
  if (options.directory) return directorySource(*options.directory);
  return ldapSource(*options.ldap, options.base.value_or(""));
}

std::list<RefCertificate> ask(const CertificateSource& source, const FindOptions& options) {
  LogCollector log;
  std::list<RefCertificate> found;
  std::string failure;
  try {
    if (options.email) {
      source.method->getByEmailAddress(source.base, addressFor(source, *options.email), found);
    } else {
      source.method->getBySubject(DistinguishedName(*options.subject), found);
    }
  } catch (const std::exception& error) {
    const std::string text = reasonOf(error);
    failure = text.starts_with(source.name) ? text : source.name + ": " + text;
  }
  writeLog(source.name, log.take());
  if (!failure.empty()) throw ToolError(failure);
  return found;
}

int runFind(const FindOptions& options) {
  prepare(options);
  const CertificateSource source = sourceOf(options);
  const std::list<RefCertificate> found = ask(source, options);
  int status = kAllValid;
  FactsOutput output(options.json);
  for (const RefCertificate& certificate : found) {
    status = std::max(status, output.add(factsOf(source.name, certificate)));
  }
  output.finish();
  if (found.empty()) {
    writeErrorLine("pkx509: " + source.name + ": there is no certificate for " +
                   options.email.value_or(options.subject.value_or("")));
    return kNotFound;
  }
  return status;
}

constexpr char kFindHelp[] = R"(
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

}  // namespace

void addFindCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<FindOptions>();
  Subcommand command =
      commandLine.add("find", "Looks for certificates by mail address or by subject.");
  command.option("--email", "ADDRESS", "the mail address that they are for", options->email);
  command.option("--subject", "DN", "their subject", options->subject);
  command.option("--dir", "DIR", "hash directory to look in", options->directory);
  command.option("--ldap", "URI", "LDAP directory to look in, ldap://HOST or ldaps://HOST",
                 options->ldap);
  command.option("--base", "DN", "where in it to look for a mail address", options->base);
  command.flag("--json", "prints JSON", options->json);
  command.footer(kFindHelp);
  command.action([options] { return runFind(*options); });
}

}  // namespace Velantrix::Tool
