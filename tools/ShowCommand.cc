// `pkx509 show`: shows what stands in certificates and CRLs.
#include "Content.h"
#include "Facts.h"
#include "FactsOutput.h"
#include "Input.h"
#include "Progress.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Subcommands.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

namespace {

struct ShowOptions {
  std::vector<std::string> files;
  bool json = false;
};

struct Shown {
  std::vector<Facts> facts;
  std::vector<std::string> errors;
};

Shown look(const std::string& file, Progress& progress) {
  const Progress::Step step(progress);
  Shown shown;
  try {
    for (const Crypto::PKX509::CertificateFactory::Item& object : readObjects(file)) {
      if (!object.problem.empty()) {
        shown.errors.push_back(nameOf(file) + ": " + object.problem);
      } else if (!object.crl.empty()) {
        shown.facts.push_back(factsOf(file, object.crl));
      } else {
        shown.facts.push_back(factsOf(file, object.certificate));
      }
    }
  } catch (const ToolError& error) {
    shown.errors.emplace_back(error.what());
  }
  return shown;
}

int runShow(const ShowOptions& options) {
  requireOneStandardInput(options.files);
  int status = kAllValid;
  FactsOutput output(options.json);
  Progress progress(options.files.size());
  for (const std::string& file : options.files) {
    Shown shown = look(file, progress);
    for (const std::string& error : shown.errors) {
      writeErrorLine("pkx509: " + error);
      status = kError;
    }
    for (Facts& facts : shown.facts) status = std::max(status, output.add(std::move(facts)));
  }
  output.finish();
  return status;
}

constexpr char kShowHelp[] = R"(
Nothing is verified: what is shown is what an object says of itself. Objects are shown in the order
of the file; keys and whatever else a file holds are passed over.

Output:
  For each certificate and CRL its facts, one on a line. Numbers of certificates and CRLs are
  hexadecimal, times are in UTC. A certificate without a key usage is "not restricted". The line of a
  fact that cannot be read says what is broken.
  With --json an array of an object for each certificate and CRL. What an object does not have is
  null, and "problems" says by the key of a fact what is broken in it.
  Of a certificate: file, type ("certificate"), subject, issuer, serial, notBefore, notAfter,
  keyAlgorithm, keyBits, subjectKeyIdentifier, authorityKeyIdentifier, keyUsage, ca, pathLength,
  selfSigned, crlDistributionPoints (objects with fullName, relativeName, reasons, crlIssuers), ocsp,
  emails, problems.
  Of a CRL: file, type ("crl"), issuer, crlNumber, baseCRLNumber, thisUpdate, nextUpdate,
  authorityKeyIdentifier, issuingDistributionPoint (an object with fullName, relativeName, onlyUser,
  onlyCA, onlyAttribute, indirect, reasons), entries, unhandledCriticalExtension, problems.

Exit status:
  0  Everything could be read.
  2  Wrong usage, or something that cannot be read: a file, a certificate or CRL in it, or a part of
     a certificate. A line on standard error names it, or the line of the fact does. The rest is shown
     all the same.

Examples:
  pkx509 show person.pem ca.crl
  pkx509 show --json chain.pem
  openssl s_client -showcerts -connect mx.example.com:465 </dev/null | pkx509 show -
)";

}  // namespace

void addShowCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<ShowOptions>();
  Subcommand command = commandLine.add("show", "Shows what stands in certificates and CRLs.");
  command.argument("FILE", "certificates and CRLs, PEM or DER; - for standard input",
                   options->files);
  command.flag("--json", "prints JSON", options->json);
  command.footer(kShowHelp);
  command.action([options] { return runShow(*options); });
}

}  // namespace Velantrix::Tool
