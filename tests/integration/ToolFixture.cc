#include "ToolFixture.h"

#include "support/PrivateView.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <linux/capability.h>
#include <memory>
#include <regex>
#include <stdexcept>
#include <sys/prctl.h>

namespace Velantrix::Test {

namespace {

namespace fs = std::filesystem;

std::unique_ptr<TempDir> pkiDirectory;

}  // namespace

Arguments operator+(Arguments left, const Arguments& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

void ToolFixture::SetUpTestSuite() {
  pkiDirectory = std::make_unique<TempDir>();
  if (const char* made = std::getenv("PKX509_MADE_PKI")) {
    fs::copy(made, pki(""), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  } else {
    command({PKX509_DEMO_PKI, pki("")});
  }
}

void ToolFixture::TearDownTestSuite() { pkiDirectory.reset(); }

void ToolFixture::SetUp() { clearPrivateView(); }

CommandResult ToolFixture::tool(const Arguments& arguments, std::string_view input) {
  return runCommand(Arguments{PKX509_TOOL} + arguments, input);
}

CommandResult ToolFixture::shell(const std::string& script, const Arguments& arguments) {
  return runCommand(Arguments{"bash", "-c", script, PKX509_TOOL} + arguments);
}

void ToolFixture::command(const Arguments& arguments) {
  const CommandResult result = runCommand(arguments);
  if (result.status != 0) throw std::runtime_error(arguments.front() + ": " + result.err);
}

void ToolFixture::obeyPermissions() {
  for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
    ASSERT_TRUE(::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0 || errno == EPERM);
  }
}

std::string ToolFixture::pki(const std::string& name) {
  return (pkiDirectory->path() / "pki" / name).string();
}

Arguments ToolFixture::verifyWith(const std::string& crls) {
  return {"verify",    "--ca-dir",        pki("ca"), "--untrusted", pki("intermediates.pem"),
          "--crl-dir", pki("crl/" + crls)};
}

Arguments ToolFixture::classicWith(const std::string& crls) {
  return verifyWith(crls) + Arguments{"--classic"};
}

nlohmann::json ToolFixture::parsed(const CommandResult& result) {
  return nlohmann::json::parse(result.out);
}

std::string ToolFixture::keysOf(const CommandResult& result) {
  const auto objects = nlohmann::ordered_json::parse(result.out);
  std::string keys;
  for (const auto& item : objects.at(0).items()) keys += item.key() + " ";
  return keys;
}

std::string ToolFixture::withoutMeasures(const std::string& text) {
  static const std::regex alone(" \\(([0-9]+ octets(, )?)?(after [0-9]+ ms)?\\)");
  static const std::regex last("(, [0-9]+ octets)?(, after [0-9]+ ms)?\\)");
  return std::regex_replace(std::regex_replace(text, alone, ""), last, ")");
}

long linesIn(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

}  // namespace Velantrix::Test
