#include "ShowCommand.h"

#include "Content.h"
#include "Facts.h"
#include "Input.h"
#include "JsonText.h"
#include "Progress.h"
#include "ShowHelp.h"
#include "StandardStreams.h"
#include "Status.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Tool {

namespace {

struct Options {
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
    for (const InputObject& object : readObjects(file)) {
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

int run(const Options& options) {
  requireOneStandardInput(options.files);
  int status = kAllValid;
  Facts all = Facts::array();
  Progress progress(options.files.size());
  for (const std::string& file : options.files) {
    Shown shown = look(file, progress);
    for (const std::string& error : shown.errors) {
      writeErrorLine("pkx509: " + error);
      status = kError;
    }
    for (Facts& facts : shown.facts) {
      if (hasProblems(facts)) status = kError;
      if (options.json) {
        all.push_back(std::move(facts));
      } else {
        writeOutput(factsText(facts));
      }
    }
  }
  if (options.json) writeOutput(jsonText(all));
  return status;
}

}  // namespace

void addShowCommand(CLI::App& app, Action& action) {
  CLI::App* const command =
      app.add_subcommand("show", "Shows what stands in certificates and CRLs.");
  const auto options = std::make_shared<Options>();
  command
      ->add_option("FILE", options->files,
                   "certificates and CRLs, PEM or DER; - for standard input")
      ->required()
      ->type_name("");
  command->add_flag("--json", options->json, "prints JSON");
  command->footer(showHelp());
  command->callback([options, &action] { action = [options] { return run(*options); }; });
}

}  // namespace Velantrix::Tool
