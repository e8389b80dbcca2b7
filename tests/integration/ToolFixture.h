// Runs the command-line tool on a PKI that the openssl command made.
#pragma once

#include "support/Command.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

using Arguments = std::vector<std::string>;

/// Arguments one after the other.
Arguments operator+(Arguments left, const Arguments& right);

/// Each test process has one PKI of its own, made by scripts/demo-pki, which says what is in it, and a
/// directory for what a test makes itself. CTest has the PKI made once, for all of them to copy.
class ToolFixture : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  /// Empties the library's fixed directories.
  void SetUp() override;

  /// "pkx509 ARGUMENT...".
  static CommandResult tool(const Arguments& arguments, std::string_view input = {});
  /// As a shell writes it: `script` with the tool as "$0" and the arguments as "$@".
  static CommandResult shell(const std::string& script, const Arguments& arguments);
  /// Runs another command, which has to succeed.
  static void command(const Arguments& arguments);

  /// From now on file permissions bind the commands that this process starts, also as root. (An
  /// ordinary user has not got the rights that are given up here, and may not give them up.)
  static void obeyPermissions();

  /// A path in the PKI.
  static std::string pki(const std::string& name);
  static std::string person(const std::string& name) { return pki("people/" + name + ".pem"); }
  /// A path in the test's own directory.
  std::string own(const std::string& name) const { return (directory_ / name).string(); }

  /// "verify" over the PKI's root and intermediates and one of its CRL directories.
  static Arguments verifyWith(const std::string& crls);
  /// The same with --classic.
  static Arguments classicWith(const std::string& crls);

  /// The objects of a JSON report, by file.
  static nlohmann::json parsed(const CommandResult& result);
  /// The keys of the first one in their order, each with a blank after it.
  static std::string keysOf(const CommandResult& result);
  /// Lines of reports without how much was read and how long it took, which differ.
  static std::string withoutMeasures(const std::string& text);

 private:
  TempDir directory_;
};

/// A number of lines.
long linesIn(const std::string& text);

}  // namespace Velantrix::Test
