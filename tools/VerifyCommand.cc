#include "VerifyCommand.h"

#include "Content.h"
#include "Input.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Progress.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Status.h"
#include "Terminal.h"
#include "Verification.h"
#include "VerifyHelp.h"

#include <pkx509/FixedPaths.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Tool {

namespace {

struct Options {
  std::vector<std::string> files;
  std::vector<std::string> untrustedFiles;
  std::vector<std::string> policies;
  VerificationSettings settings;
  std::optional<std::string> ldap;
  std::optional<std::string> bindDn;
  bool json = false;
  std::string colour = "auto";
};

// Finds what is wrong with the command line before anything is verified.
void prepare(Options& options) {
  std::vector<std::string> files = options.files;
  files.insert(files.end(), options.untrustedFiles.begin(), options.untrustedFiles.end());
  requireOneStandardInput(files);
  VerificationSettings& settings = options.settings;
  if (options.bindDn && !options.ldap) throw ToolError("--bind-dn goes with --ldap");
  if (options.ldap) {
    settings.ldap = {ldapServer(*options.ldap), options.bindDn.value_or(""), ""};
  }
  if (!options.policies.empty()) {
    settings.config.policies.clear();
    for (const std::string& policy : options.policies) {
      requirePolicy(policy);
      settings.config.policies.insert(policy);
    }
  }
  requireHashDirectory("--ca-dir", settings.caDirectory);
  for (const std::string& directory : settings.crlDirectories) {
    requireHashDirectory("--crl-dir", directory);
  }
  for (const std::string& file : options.untrustedFiles) {
    std::list<Crypto::PKX509::RefCertificate> certificates = readCertificates(file);
    settings.untrusted.splice(settings.untrusted.end(), certificates);
  }
}

void writeLog(const std::string& file, const std::vector<Report::LogLine>& lines) {
  for (const Report::LogLine& line : lines) writeErrorLine(logLine(file, line));
}

Report reportOn(const Options& options, const std::string& file, LogCollector& log,
                Progress& progress) {
  Report report;
  try {
    const Progress::Step step(progress);
    report = verify(options.settings, readCertificates(file));
  } catch (const ToolError&) {
    throw;
  } catch (const std::exception& error) {
    if (!options.json) writeLog(file, log.take());
    throw ToolError(describe(file, error));
  }
  report.file = file;
  report.log = log.take();
  return report;
}

int run(Options& options) {
  LogCollector log;
  const bool colour = wantsColour(options.colour);
  prepare(options);
  Progress progress(options.files.size());
  int status = kAllValid;
  std::vector<Report> reports;
  for (const std::string& file : options.files) {
    Report report;
    try {
      report = reportOn(options, file, log, progress);
    } catch (const ToolError& error) {
      writeErrorLine(std::string("pkx509: ") + error.what());
      static_cast<void>(log.take());
      status = kError;
      continue;
    }
    if (!report.valid()) status = std::max<int>(status, kNotValid);
    if (options.json) {
      reports.push_back(std::move(report));
    } else {
      writeLog(file, report.log);
      writeOutput(textReport(report, colour));
    }
  }
  if (options.json) writeOutput(jsonReport(reports));
  return status;
}

}  // namespace

void addVerifyCommand(CLI::App& app, Action& action) {
  CLI::App* const command = app.add_subcommand(
      "verify", "Verifies certificates: path to a trusted root, revocation of all of it.");
  const auto options = std::make_shared<Options>();
  VerificationSettings& settings = options->settings;
  settings.caDirectory = Crypto::PKX509::kCADirectory;

  // Each use of a repeatable option takes one value, and the order among --flag and --no-flag
  // counts.
  const auto each = [command](const char* name, const char* type, const std::string& description,
                              const std::function<void(const std::string&)>& take) {
    command->add_option_function<std::string>(name, take, description)
        ->trigger_on_parse()
        ->type_name(type);
  };
  command
      ->add_option("FILE", options->files,
                   "certificate to verify, PEM or DER; - for standard input")
      ->required()
      ->type_name("");
  command
      ->add_option("--ca-dir", settings.caDirectory,
                   std::string("trusted certificates, default ") + Crypto::PKX509::kCADirectory)
      ->type_name("DIR");
  each("--untrusted", "FILE", "certificates to build the path from; repeatable",
       [options](const std::string& file) { options->untrustedFiles.push_back(file); });
  each("--crl-dir", "DIR", "CRLs; repeatable", [options](const std::string& directory) {
    options->settings.crlDirectories.push_back(directory);
  });
  command
      ->add_option_function<std::string>(
          "--ldap", [options](const std::string& uri) { options->ldap = uri; },
          "LDAP directory of certificates and CRLs, ldap://HOST or ldaps://HOST")
      ->type_name("URI");
  command
      ->add_option_function<std::string>(
          "--bind-dn", [options](const std::string& name) { options->bindDn = name; },
          "name for the LDAP directory; a name suppresses the bind, see below")
      ->type_name("DN");
  each("--policy", "OID", "acceptable certificate policy, default any; repeatable",
       [options](const std::string& oid) { options->policies.push_back(oid); });
  each("--flag", "NAME", "sets a verification flag, see below; repeatable",
       [options](const std::string& name) {
         const unsigned long bits = parseFlag(name);
         options->settings.config.flags |= static_cast<int>(bits);
         options->settings.clearedFlags &= ~bits;
       });
  each("--no-flag", "NAME", "clears a verification flag; repeatable",
       [options](const std::string& name) {
         const unsigned long bits = parseFlag(name);
         options->settings.config.flags &= ~static_cast<int>(bits);
         options->settings.clearedFlags |= bits;
       });
  command
      ->add_option_function<std::string>(
          "--at", [options](const std::string& text) { options->settings.at = parseTime(text); },
          "verifies as of that time, see below")
      ->type_name("TIME");
  command->add_flag("--openssl-revocation", settings.openSSLRevocation,
                    "OpenSSL's revocation check in place of the library's");
  command->add_flag("--json", options->json, "prints JSON");
  command
      ->add_option("--color", options->colour,
                   "colours the verdict: auto (on a terminal), always or never")
      ->type_name("WHEN");
  command->footer(verifyHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
