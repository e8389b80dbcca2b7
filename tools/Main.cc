// The command-line tool: reads the command line, runs one subcommand, and turns every failure into
// one line on standard error and an exit status.
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <openssl/crypto.h>

#include <exception>
#include <string>

namespace {

using namespace Velantrix::Tool;

std::string versionText() {
  return std::string("pkx509 " PKX509_VERSION ", libvlxpkx509 " PKX509_VERSION ", ") +
         OpenSSL_version(OPENSSL_VERSION) + "\n";
}

int run(int argc, char** argv) {
  CommandLine commandLine("pkx509", "Validates X.509 certificates, revocation included.");
  commandLine.version("prints the versions of the tool, its library and OpenSSL", versionText());
  commandLine.footer(
      "\nExamples:\n"
      "  pkx509 verify --untrusted chain.pem --crl-dir crls person.pem\n"
      "  pkx509 simple --key-usage keyEncipherment --require-key-usage person.pem\n"
      "  pkx509 show person.pem ca.crl\n"
      "  pkx509 find --email person@example.com --dir certs\n"
      "  pkx509 crl http://crl.example.com/ca.crl\n"
      "  pkx509 ocsp --chain intermediates.pem person.pem\n"
      "  pkx509 refresh\n"
      "  pkx509 cache list\n"
      "\n\"pkx509 SUBCOMMAND --help\" tells more.");
  addVerifyCommand(commandLine);
  addSimpleCommand(commandLine);
  addShowCommand(commandLine);
  addFindCommand(commandLine);
  addAddCommand(commandLine);
  addCRLCommand(commandLine);
  addOCSPCommand(commandLine);
  addRefreshCommand(commandLine);
  addCacheCommand(commandLine);
  return commandLine.run(argc, argv);
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
