// `pkx509 add`: stores a certificate under a mail address.
#include "Facts.h"
#include "Input.h"
#include "JsonText.h"
#include "OptionValues.h"
#include "Printable.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/EmailAddress.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>

namespace Velantrix::Tool {

using Crypto::PKX509::HashDirLookupMethod;
using Crypto::PKX509::RefCertificate;

namespace {

struct AddOptions {
  std::string file;
  std::string email;
  std::string directory;
  bool json = false;
};

// Somebody may well have mail under an address that the certificate does not have, so this is no
// error; but it is how a certificate ends up with somebody else's mail.
bool names(const Facts& certificate, const std::string& email) {
  const Value::Array* const emails = certificate.at("emails").array();
  return emails != nullptr && std::any_of(emails->begin(), emails->end(), [&](const Value& named) {
           return *named.text() == email;
         });
}

int runAdd(const AddOptions& options) {
  requireEmailAddress(options.email);
  const RefCertificate certificate = readCertificates(options.file).front();
  const Facts facts = factsOf(options.file, certificate);
  try {
    HashDirLookupMethod(options.directory).add(EmailAddress(options.email), certificate);
  } catch (const std::exception& error) {
    throw ToolError("--dir: " + reasonOf(error));
  }
  if (!names(facts, options.email)) {
    writeErrorLine("pkx509: warning: " + options.file + ": the certificate does not name " +
                   options.email);
  }
  if (options.json) {
    writeOutput(jsonText(Value::Array{Value::Object{{"file", options.file},
                                                    {"email", options.email},
                                                    {"directory", options.directory},
                                                    {"subject", facts.at("subject")},
                                                    {"issuer", facts.at("issuer")},
                                                    {"serial", facts.at("serial")}}}));
  } else {
    writeOutput(printable(options.file) + ": added to " + printable(options.directory) + " for " +
                printable(options.email) + '\n');
  }
  return kAllValid;
}

constexpr char kAddHelp[] = R"(
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

}  // namespace

void addAddCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<AddOptions>();
  Subcommand command = commandLine.add("add", "Stores a certificate under a mail address.");
  command.argument("CERT", "certificate to store, PEM or DER; - for standard input", options->file);
  command.requiredOption("--email", "ADDRESS", "the mail address that it is for", options->email);
  command.requiredOption("--dir", "DIR", "hash directory to store it in", options->directory);
  command.flag("--json", "prints JSON", options->json);
  command.footer(kAddHelp);
  command.action([options] { return runAdd(*options); });
}

}  // namespace Velantrix::Tool
