#include "FindCommand.h"

#include "CertificateSource.h"
#include "Facts.h"
#include "FindHelp.h"
#include "Input.h"
#include "JsonText.h"
#include "LogCollector.h"
#include "OptionValues.h"
#include "Report.h"
#include "StandardStreams.h"
#include "Status.h"

#include <velantrix/DistinguishedName.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Tool {

using Crypto::PKX509::DistinguishedName;
using Crypto::PKX509::RefCertificate;

namespace {

constexpr int kNotFound = kNotValid;  // as grep has it

struct Options {
  std::optional<std::string> email;
  std::optional<std::string> subject;
  std::optional<std::string> directory;
  std::optional<std::string> ldap;
  std::optional<std::string> base;
  bool json = false;
};

// Finds what is wrong with the question before anything is opened.
void prepare(const Options& options) {
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

CertificateSource sourceOf(const Options& options) {
  if (options.directory) return directorySource(*options.directory);
  return ldapSource(*options.ldap, options.base.value_or(""));
}

std::list<RefCertificate> ask(const CertificateSource& source, const Options& options) {
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
  for (const Report::LogLine& line : log.take()) writeErrorLine(logLine(source.name, line));
  if (!failure.empty()) throw ToolError(failure);
  return found;
}

int run(const Options& options) {
  prepare(options);
  const CertificateSource source = sourceOf(options);
  const std::list<RefCertificate> found = ask(source, options);
  int status = kAllValid;
  Facts all = Facts::array();
  for (const RefCertificate& certificate : found) {
    Facts facts = factsOf(source.name, certificate);
    if (hasProblems(facts)) status = kError;
    if (options.json) {
      all.push_back(std::move(facts));
    } else {
      writeOutput(factsText(facts));
    }
  }
  if (options.json) writeOutput(jsonText(all));
  if (found.empty()) {
    writeErrorLine("pkx509: " + source.name + ": there is no certificate for " +
                   options.email.value_or(options.subject.value_or("")));
    return kNotFound;
  }
  return status;
}

}  // namespace

void addFindCommand(CLI::App& app, Action& action) {
  CLI::App* const command =
      app.add_subcommand("find", "Looks for certificates by mail address or by subject.");
  const auto options = std::make_shared<Options>();
  const auto text = [command](const char* name, const char* type, const char* description,
                              std::optional<std::string>& value) {
    // Given straight to the parser, an empty text would count as an option that is not there.
    command
        ->add_option_function<std::string>(
            name, [&value](const std::string& given) { value = given; }, description)
        ->type_name(type);
  };
  text("--email", "ADDRESS", "the mail address that they are for", options->email);
  text("--subject", "DN", "their subject", options->subject);
  text("--dir", "DIR", "hash directory to look in", options->directory);
  text("--ldap", "URI", "LDAP directory to look in, ldap://HOST or ldaps://HOST", options->ldap);
  text("--base", "DN", "where in it to look for a mail address", options->base);
  command->add_flag("--json", options->json, "prints JSON");
  command->footer(findHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
