#include "AddCommand.h"

#include "AddHelp.h"
#include "Facts.h"
#include "Input.h"
#include "JsonText.h"
#include "OptionValues.h"
#include "Printable.h"
#include "StandardStreams.h"
#include "Status.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/EmailAddress.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <memory>
#include <string>

namespace Velantrix::Tool {

using Crypto::PKX509::HashDirLookupMethod;
using Crypto::PKX509::RefCertificate;

namespace {

struct Options {
  std::string file;
  std::string email;
  std::string directory;
  bool json = false;
};

// Somebody may well have mail under an address that the certificate does not have, so this is no
// error; but it is how a certificate ends up with somebody else's mail.
bool names(const Facts& certificate, const std::string& email) {
  const Facts& emails = certificate.at("emails");
  return std::find(emails.begin(), emails.end(), email) != emails.end();
}

int run(const Options& options) {
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
    writeOutput(jsonText(Facts::array({{{"file", options.file},
                                        {"email", options.email},
                                        {"directory", options.directory},
                                        {"subject", facts.at("subject")},
                                        {"issuer", facts.at("issuer")},
                                        {"serial", facts.at("serial")}}})));
  } else {
    writeOutput(printable(options.file) + ": added to " + printable(options.directory) + " for " +
                printable(options.email) + '\n');
  }
  return kAllValid;
}

}  // namespace

void addAddCommand(CLI::App& app, Action& action) {
  CLI::App* const command = app.add_subcommand("add", "Stores a certificate under a mail address.");
  const auto options = std::make_shared<Options>();
  command
      ->add_option("CERT", options->file, "certificate to store, PEM or DER; - for standard input")
      ->required()
      ->type_name("");
  command->add_option("--email", options->email, "the mail address that it is for")
      ->required()
      ->type_name("ADDRESS");
  command->add_option("--dir", options->directory, "hash directory to store it in")
      ->required()
      ->type_name("DIR");
  command->add_flag("--json", options->json, "prints JSON");
  command->footer(addHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
