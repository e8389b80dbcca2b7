// `pkx509 simple`: asks the verifier of daemons without a trust store of their own.
#include "DirectoryWarnings.h"
#include "Input.h"
#include "KeyUsage.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Report.h"
#include "ReportOptions.h"
#include "Status.h"
#include "Subcommands.h"
#include "Terminal.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/SimpleVerifier.h>

#include <openssl/x509_vfy.h>

#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace Velantrix::Tool {

using Crypto::PKX509::RefCertificate;
using Crypto::PKX509::SimpleVerifier;

namespace {

constexpr int kNoVerdict = -1;

struct SimpleOptions {
  std::string file;
  int keyUsage = 0;
  bool requireKeyUsage = false;
  bool conforming = false;
  std::chrono::milliseconds deadline = std::chrono::milliseconds::max();
  ReportOptions output;
};

Report verifySimply(const SimpleOptions& options, const RefCertificate& certificate) {
  LogCollector log;
  Report report;
  report.file = options.file;
  report.verifier = options.conforming ? Report::kConforming : Report::kClassic;
  report.pathKnown = false;
  try {
    report.code = SimpleVerifier().isValid(certificate, options.keyUsage, options.requireKeyUsage,
                                           {.deadline = options.deadline}, report.found);
    report.text = report.code == kNoVerdict
                      ? "the key usage does not fit, or the verification could not be carried out"
                      : X509_verify_cert_error_string(report.code);
  } catch (const std::exception& error) {
    // What leaves the verifier means "not valid", like what it catches itself.
    report.code = kNoVerdict;
    report.text = reasonOf(error);
  }
  report.log = log.take();
  return report;
}

int runSimple(const SimpleOptions& options) {
  static_cast<void>(wantsColour(options.output.colour));  // a wrong word is found before any work
  SimpleVerifier::useConformingVerifier(options.conforming);
  const RefCertificate certificate = readCertificates(options.file).front();
  warnAboutTrustDirectory(Crypto::PKX509::kCADirectory);
  warnAboutCRLDirectories({});
  const Report report = verifySimply(options, certificate);
  if (options.output.json) {
    writeJson({report}, options.output);
  } else {
    writeText(report, options.output);
  }
  return report.valid() ? kAllValid : statusFor(report.found.outcome(), kNotValid, options.output);
}

constexpr std::string_view kBeforeNames = R"(
The first certificate of CERT is verified as daemons verify it that have no trust store of their own:
trusted certificates come from /opsadmin/etc/cert/server/ca and CRLs from
/opsadmin/etc/cert/server/crl, both of them directories of PEM files that are named by a hash.
Intermediate certificates have to stand in the former; others in CERT play no part. --conforming is for
daemons that ask for the conforming verifier, which "pkx509 verify" uses; others have the classic one.
What is not settled within --deadline is not valid for now, as with "pkx509 verify".

NAMES are key usages, in any case of letters and separated by commas:
)";

constexpr std::string_view kAfterNames = R"(
Without --require-key-usage a key usage that does not fit is a log line and nothing more. A
certificate that does not restrict its key usage always fits.

Output:
  The verdict, OpenSSL's code and text for it, the verifier that decided; under the verdict of a
  certificate that is not valid a line that says why. The code is -1 when the key usage was refused or
  when the verification could not be carried out. Log lines go to standard error, as
  "CERT: <priority> text", and so do warnings, as "pkx509: warning: PATH: reason".
  With --explain a tree says why, as "pkx509 verify --help" tells.
  With --json everything goes to standard output, as an array of one object: schemaVersion (1), file,
  verdict ("valid" or "invalid"), outcome ("valid", "permanent", "temporary" or "local"), code, text,
  verifier ("classic" or "conforming"), where it is not valid line, then checkTime, path, findings,
  sources, totals, leftOut, log (objects with priority, text); docs/pkx509.schema.json describes them.
  JSON is never coloured, and with NO_COLOR set in the environment or TERM being "dumb", --color=auto
  is "never".
  With --quiet there is no output but errors and warnings.

Exit status:
  0   The certificate is valid.
  1   It is not, or the verification could not be carried out.
  2   Wrong usage, or CERT cannot be read. A line on standard error says so.
  75  With --tempfail: it is not valid, and the outcome is temporary: it may be valid later.

Examples:
  pkx509 simple person.pem
  pkx509 simple --key-usage digitalSignature,nonRepudiation --require-key-usage person.pem
  pkx509 simple --conforming --explain person.pem
)";

std::string simpleHelp() {
  std::string help(kBeforeNames);
  for (const NamedBit& usage : kKeyUsages) help.append("  ").append(usage.name).append("\n");
  return help.append(kAfterNames);
}

}  // namespace

void addSimpleCommand(CommandLine& commandLine) {
  const auto options = std::make_shared<SimpleOptions>();
  Subcommand command =
      commandLine.add("simple", "Asks the verifier of the machine's daemons about a certificate.");
  command.argument("CERT", "certificate to verify, PEM or DER; - for standard input",
                   options->file);
  command.option("--key-usage", "NAMES",
                 "what it is to be used for, see below; one of them has to be allowed",
                 [options](const std::string& names) { options->keyUsage = parseKeyUsage(names); });
  command.flag("--require-key-usage", "refuses a certificate whose key usage does not fit",
               options->requireKeyUsage);
  command.needs("--require-key-usage", "--key-usage");
  command.flag("--conforming", "with the conforming verifier, as daemons that ask for it",
               options->conforming);
  command.option("--deadline", "DURATION", "gives it no more time than that, 500ms, 10s or 2m",
                 [options](const std::string& text) { options->deadline = parseDuration(text); });
  addReportOptions(command, options->output);
  command.footer(simpleHelp());
  command.action([options] { return runSimple(*options); });
}

}  // namespace Velantrix::Tool
