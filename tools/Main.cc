// The command-line tool: reads the command line, runs one subcommand, and turns every failure into
// one line on standard error and an exit status.
#include "AddCommand.h"
#include "CRLCommand.h"
#include "FindCommand.h"
#include "OCSPCommand.h"
#include "ShowCommand.h"
#include "SimpleCommand.h"
#include "StandardStreams.h"
#include "Status.h"
#include "VerifyCommand.h"

#include <openssl/crypto.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <string>
#include <vector>

namespace {

using namespace Velantrix::Tool;

std::string versionText() {
  return std::string("pkx509 " PKX509_VERSION ", libvlxpkx509 " PKX509_VERSION ", ") +
         OpenSSL_version(OPENSSL_VERSION) + "\n";
}

// The arguments in the reverse order that CLI11 wants, without what CLI11 would take for something
// else than it is.
std::vector<std::string> arguments(int argc, char** argv) {
  std::vector<std::string> reversed;
  bool namesOnly = false;
  for (int i = argc - 1; i > 0; --i) reversed.emplace_back(argv[i]);
  for (auto argument = reversed.rbegin(); argument != reversed.rend(); ++argument) {
    namesOnly = namesOnly || *argument == "--";
    // "--untrusted=" of an unset variable would swallow the next argument, a certificate to verify.
    if (!namesOnly && argument->starts_with("--") && argument->find('=') == argument->size() - 1) {
      throw ToolError(*argument + ": the value is missing");
    }
    // A file name in brackets is no list of names.
    if (argument->starts_with('[') && argument->ends_with(']')) argument->insert(0, "./");
  }
  return reversed;
}

// One line for what CLI11 found wrong.
std::string usageError(const CLI::App& app, const CLI::ParseError& error) {
  // A mistyped option is the better explanation of a missing argument.
  const std::vector<std::string> unknown = app.remaining(true);
  const std::string text = unknown.empty() ? error.what() : "unknown argument: " + unknown.front();
  return text + "; --help shows the usage";
}

int run(int argc, char** argv) {
  CLI::App app("Validates X.509 certificates, revocation included.", "pkx509");
  app.set_help_flag("-h,--help", "prints this help");
  bool version = false;
  app.add_flag("--version", version, "prints the versions of the tool, its library and OpenSSL");
  app.require_subcommand(0, 1);
  app.footer(
      "\nExamples:\n"
      "  pkx509 verify --untrusted chain.pem --crl-dir crls person.pem\n"
      "  pkx509 simple --key-usage keyEncipherment --require-key-usage person.pem\n"
      "  pkx509 show person.pem ca.crl\n"
      "  pkx509 find --email person@example.com --dir certs\n"
      "  pkx509 crl http://crl.example.com/ca.crl\n"
      "  pkx509 ocsp --chain intermediates.pem person.pem\n"
      "\n\"pkx509 SUBCOMMAND --help\" tells more.");
  Action action;
  addVerifyCommand(app, action);
  addSimpleCommand(app, action);
  addShowCommand(app, action);
  addFindCommand(app, action);
  addAddCommand(app, action);
  addCRLCommand(app, action);
  addOCSPCommand(app, action);
  try {
    app.parse(arguments(argc, argv));
  } catch (const CLI::CallForHelp&) {
    writeOutput(app.help());
    return kAllValid;
  } catch (const CLI::ParseError& error) {
    throw ToolError(usageError(app, error));
  }
  if (version) {
    writeOutput(versionText());
    return kAllValid;
  }
  if (!action) throw ToolError("a subcommand is missing; --help shows the usage");
  return action();
}

}  // namespace

int main(int argc, char** argv) {
  prepareStandardStreams();
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    writeErrorLine(std::string("pkx509: ") + error.what());
  }
  return kError;
}
