#include "CommandLine.h"

#include "StandardStreams.h"
#include "Status.h"

#include <CLI/CLI.hpp>

namespace Velantrix::Tool {

namespace {

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

// An argument's own name is enough: it has no type in the help.
constexpr char kNoType[] = "";

CLI::Option* addTake(CLI::App& app, const std::string& name, const std::string& type,
                     const std::string& description, const Take& take) {
  return app.add_option_function<std::string>(name, take, description)->type_name(type);
}

}  // namespace

void Subcommand::argument(const std::string& name, const std::string& description,
                          std::string& value) {
  app_.add_option(name, value, description)->required()->type_name(kNoType);
}

void Subcommand::argument(const std::string& name, const std::string& description,
                          std::vector<std::string>& values) {
  app_.add_option(name, values, description)->required()->type_name(kNoType);
}

void Subcommand::optionalArgument(const std::string& name, const std::string& description,
                                  std::vector<std::string>& values) {
  app_.add_option(name, values, description)->type_name(kNoType);
}

void Subcommand::option(const std::string& name, const std::string& type,
                        const std::string& description, std::string& value) {
  app_.add_option(name, value, description)->type_name(type);
}

void Subcommand::option(const std::string& name, const std::string& type,
                        const std::string& description, std::optional<std::string>& value) {
  // Given straight to the parser, an empty text would count as an option that is not there.
  option(name, type, description, [&value](const std::string& given) { value = given; });
}

void Subcommand::option(const std::string& name, const std::string& type,
                        const std::string& description, const Take& take) {
  addTake(app_, name, type, description, take);
}

void Subcommand::requiredOption(const std::string& name, const std::string& type,
                                const std::string& description, std::string& value) {
  app_.add_option(name, value, description)->required()->type_name(type);
}

void Subcommand::repeatableOption(const std::string& name, const std::string& type,
                                  const std::string& description, const Take& take) {
  addTake(app_, name, type, description, take)->trigger_on_parse();
}

void Subcommand::repeatableOption(const std::string& name, const std::string& type,
                                  const std::string& description,
                                  std::vector<std::string>& values) {
  repeatableOption(name, type, description,
                   [&values](const std::string& value) { values.push_back(value); });
}

void Subcommand::numberOption(const std::string& name, const std::string& type,
                              const std::string& description, unsigned int& value,
                              unsigned int least, unsigned int most) {
  app_.add_option(name, value, description)->type_name(type)->check(CLI::Range(least, most));
}

void Subcommand::flag(const std::string& name, const std::string& description, bool& value) {
  app_.add_flag(name, value, description);
}

void Subcommand::needs(const std::string& name, const std::string& other) {
  app_.get_option(name)->needs(app_.get_option(other));
}

void Subcommand::excludes(const std::string& name, const std::string& other) {
  app_.get_option(name)->excludes(app_.get_option(other));
}

Subcommand Subcommand::add(const std::string& name, const std::string& description) {
  app_.require_subcommand(1);
  return {*app_.add_subcommand(name, description), chosen_};
}

void Subcommand::footer(const std::string& text) { app_.footer(text); }

void Subcommand::action(const Action& run) {
  app_.callback([&chosen = chosen_, run] { chosen = run; });
}

CommandLine::CommandLine(const std::string& program, const std::string& description)
    : app_(std::make_unique<CLI::App>(description, program)) {
  app_->set_help_flag("-h,--help", "prints this help");
  app_->require_subcommand(0, 1);
}

CommandLine::~CommandLine() = default;

void CommandLine::version(const std::string& description, const std::string& text) {
  versionText_ = text;
  app_->add_flag("--version", versionWanted_, description);
}

void CommandLine::footer(const std::string& text) { app_->footer(text); }

Subcommand CommandLine::add(const std::string& name, const std::string& description) {
  return {*app_->add_subcommand(name, description), chosen_};
}

int CommandLine::run(int argc, char** argv) {
  try {
    app_->parse(arguments(argc, argv));
  } catch (const CLI::CallForHelp&) {
    writeOutput(app_->help());
    return kAllValid;
  } catch (const CLI::ParseError& error) {
    throw ToolError(usageError(*app_, error));
  }
  if (versionWanted_) {
    writeOutput(versionText_);
    return kAllValid;
  }
  if (!chosen_) throw ToolError("a subcommand is missing; --help shows the usage");
  return chosen_();
}

}  // namespace Velantrix::Tool
