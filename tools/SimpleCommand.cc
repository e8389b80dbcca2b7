#include "SimpleCommand.h"

#include "Input.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Report.h"
#include "SimpleHelp.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Terminal.h"

#include <pkx509/SimpleVerifier.h>

#include <openssl/x509_vfy.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <memory>
#include <string>

namespace Velantrix::Tool {

using Crypto::PKX509::RefCertificate;
using Crypto::PKX509::SimpleVerifier;

namespace {

constexpr int kNoVerdict = -1;

struct Options {
  std::string file;
  int keyUsage = 0;
  bool requireKeyUsage = false;
  bool json = false;
  std::string colour = "auto";
};

Report verify(const Options& options, const RefCertificate& certificate) {
  LogCollector log;
  Report report;
  report.file = options.file;
  report.pathKnown = false;
  try {
    report.code =
        SimpleVerifier::instance()->isValid(certificate, options.keyUsage, options.requireKeyUsage);
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

int run(const Options& options) {
  const bool colour = wantsColour(options.colour);
  const Report report = verify(options, readCertificates(options.file).front());
  if (options.json) {
    writeOutput(jsonReport({report}));
  } else {
    for (const Report::LogLine& line : report.log) writeErrorLine(logLine(options.file, line));
    writeOutput(textReport(report, colour));
  }
  return report.valid() ? kAllValid : kNotValid;
}

}  // namespace

void addSimpleCommand(CLI::App& app, Action& action) {
  CLI::App* const command = app.add_subcommand(
      "simple", "Asks the verifier of the machine's daemons about a certificate.");
  const auto options = std::make_shared<Options>();
  command
      ->add_option("CERT", options->file, "certificate to verify, PEM or DER; - for standard input")
      ->required()
      ->type_name("");
  CLI::Option* const keyUsage = command->add_option_function<std::string>(
      "--key-usage",
      [options](const std::string& names) { options->keyUsage = parseKeyUsage(names); },
      "what it is to be used for, see below; one of them has to be allowed");
  keyUsage->type_name("NAMES");
  command
      ->add_flag("--require-key-usage", options->requireKeyUsage,
                 "refuses a certificate whose key usage does not fit")
      ->needs(keyUsage);
  command->add_flag("--json", options->json, "prints JSON");
  command
      ->add_option("--color", options->colour,
                   "colours the verdict: auto (on a terminal), always or never")
      ->type_name("WHEN");
  command->footer(simpleHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
