// The command line: subcommands, what they take, and which of them is to run.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Velantrix::Tool {

/// What a subcommand does once the command line has been read. Its result is an exit status.
using Action = std::function<int()>;

/// Takes the value of an option while the command line is read. What it throws ends the reading.
using Take = std::function<void(const std::string&)>;

/// One subcommand of a `CommandLine`, which owns it. What is declared here is listed by `--help` in
/// the same order. Values go to variables of the caller, which have to be there until the action
/// has run.
class Subcommand {
 public:
  Subcommand(CLI::App& app, Action& chosen) : app_(app), chosen_(chosen) {}

  /// A word that has to be there. @p name is what help and messages call it.
  void argument(const std::string& name, const std::string& description, std::string& value);
  /// Words, at least one.
  void argument(const std::string& name, const std::string& description,
                std::vector<std::string>& values);

  /// Words, also none.
  void optionalArgument(const std::string& name, const std::string& description,
                        std::vector<std::string>& values);

  /// An option with a value, given at most once. @p type is what help calls the value.
  void option(const std::string& name, const std::string& type, const std::string& description,
              std::string& value);
  /// The same; that it was not given differs from an empty value.
  void option(const std::string& name, const std::string& type, const std::string& description,
              std::optional<std::string>& value);
  /// The same, for a value that is more than a text.
  void option(const std::string& name, const std::string& type, const std::string& description,
              const Take& take);
  /// An option that has to be there.
  void requiredOption(const std::string& name, const std::string& type,
                      const std::string& description, std::string& value);
  /// An option that may be given more than once, with one value each time. Values are taken in the
  /// order of the command line, over all options of this kind.
  void repeatableOption(const std::string& name, const std::string& type,
                        const std::string& description, const Take& take);
  /// The same for values that are collected.
  void repeatableOption(const std::string& name, const std::string& type,
                        const std::string& description, std::vector<std::string>& values);
  /// An option with a number from @p least to @p most.
  void numberOption(const std::string& name, const std::string& type,
                    const std::string& description, unsigned int& value, unsigned int least,
                    unsigned int most);
  /// An option without a value.
  void flag(const std::string& name, const std::string& description, bool& value);
  /// Refuses the option @p name where @p other is not given.
  void needs(const std::string& name, const std::string& other);
  /// Refuses the option @p name where @p other is given.
  void excludes(const std::string& name, const std::string& other);

  /// A subcommand of this one, which then does nothing itself: one of those has to follow.
  Subcommand add(const std::string& name, const std::string& description);

  /// What help says below the list of options.
  void footer(const std::string& text);
  /// What the subcommand does.
  void action(const Action& run);

 private:
  CLI::App& app_;
  Action& chosen_;
};

class CommandLine {
 public:
  CommandLine(const std::string& program, const std::string& description);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// `--version`, which prints @p text.
  void version(const std::string& description, const std::string& text);
  /// What help says below the list of subcommands.
  void footer(const std::string& text);
  Subcommand add(const std::string& name, const std::string& description);

  /// Reads the arguments of main() and does what they ask for.
  /// @return an exit status
  /// @throws ToolError when nobody could tell what they ask for
  int run(int argc, char** argv);

 private:
  std::unique_ptr<CLI::App> app_;
  std::string versionText_;
  bool versionWanted_ = false;
  Action chosen_;  // of the subcommand on the command line
};

}  // namespace Velantrix::Tool
