// The bash completion and the man page know what the tool knows.
#include "ToolFixture.h"
#include "support/Loopback.h"
#include "support/PrivateView.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using Words = std::set<std::string>;

constexpr const char* kCacheActions[] = {"list", "flush", "check", "metrics"};

class ToolCompletion : public ToolFixture {
 protected:
  // What bash offers for the last of the words, in the test's own directory.
  Words offered(const std::vector<std::string>& words) const {
    const std::string script =
        "set -u; cd \"$1\"; source \"$2\"; shift 2; COMP_WORDS=(\"$@\"); "
        "COMP_CWORD=$(($# - 1)); _pkx509; "
        "((${#COMPREPLY[@]})) && printf '%s\\n' \"${COMPREPLY[@]}\"; true";
    const CommandResult result = runCommand(
        Arguments{"bash", "--norc", "-c", script, "bash", own(""), PKX509_COMPLETION, "pkx509"} +
        words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    Words replies;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) replies.insert(line);
    return replies;
  }

  // The options in a help text.
  static Words optionsIn(const std::string& help) {
    Words options;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("  -h,")) line.replace(0, 5, "  ");
      if (!line.starts_with("  --")) continue;
      options.insert(line.substr(2, line.find_first_of(" ", 2) - 2));
    }
    return options;
  }

  // The words of a help text from `first` to the paragraph that begins with `next`.
  static Words wordsIn(const std::string& help, const std::string& first, const std::string& next) {
    const std::size_t begin = help.find(first);
    std::istringstream names(help.substr(begin, help.find(next) - begin));
    Words words;
    for (std::string name; names >> name;) words.insert(name);
    return words;
  }
  static Words flagsInHelp() {
    return wordsIn(tool({"verify", "--help"}).out, "ALLOW_PROXY_CERTS", "Set by default");
  }
  static Words usagesInHelp() {
    const Words words =
        wordsIn(tool({"simple", "--help"}).out, "digitalSignature\n", "Without --require");
    EXPECT_EQ(words.size(), 9U);
    return words;
  }
};

TEST_F(ToolCompletion, IsRegisteredForTheTool) {
  const CommandResult result =
      runCommand({"bash", "--norc", "-c", "source \"$0\"; complete -p pkx509", PKX509_COMPLETION});
  EXPECT_EQ(result.out, "complete -F _pkx509 pkx509\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(ToolCompletion, SubcommandsAndOptions_AreThoseOfHelp) {
  EXPECT_EQ(offered({""}), (Words{"verify", "simple", "show", "find", "add", "crl", "ocsp",
                                  "refresh", "cache", "--help", "--version"}));
  EXPECT_EQ(offered({"v"}), (Words{"verify"}));
  EXPECT_EQ(offered({"--v"}), (Words{"--version"}));
  EXPECT_EQ(offered({"x"}), (Words{}));
  const Words verify = optionsIn(tool({"verify", "--help"}).out);
  EXPECT_EQ(verify.size(), 20U);
  EXPECT_EQ(offered({"verify", "-"}), verify);
  EXPECT_EQ(offered({"verify", "a.pem", "--json", "--"}), verify);
  EXPECT_EQ(offered({"verify", "--c"}), (Words{"--ca-dir", "--classic", "--crl-dir", "--color"}));
  for (const char* subcommand : {"simple", "show", "find", "add", "crl", "ocsp", "refresh"}) {
    EXPECT_EQ(offered({subcommand, "--"}), optionsIn(tool({subcommand, "--help"}).out));
  }
  Words actions = {"--help"};
  for (const char* action : kCacheActions) {
    EXPECT_EQ(offered({"cache", action, "--"}), optionsIn(tool({"cache", action, "--help"}).out));
    actions.insert(action);
  }
  EXPECT_EQ(offered({"cache", ""}), actions);
}

TEST_F(ToolCompletion, Values_AreThoseOfTheirOption) {
  EXPECT_EQ(offered({"verify", "--flag", ""}), flagsInHelp());
  EXPECT_EQ(offered({"verify", "--no-flag", ""}), flagsInHelp());
  const Words crl = {"CRL_CHECK", "CRL_CHECK_ALL"};
  for (const char* typed : {"CRL", "crl", "crl-c", "X509_V_FLAG_CRL_", "x509-v-flag-crl"}) {
    EXPECT_EQ(offered({"verify", "--flag", typed}), crl) << typed;
  }
  EXPECT_EQ(offered({"verify", "--color", ""}), (Words{"auto", "always", "never"}));
  EXPECT_EQ(offered({"verify", "--security-level", ""}), (Words{"0", "1", "2", "3", "4", "5"}));
  EXPECT_EQ(offered({"verify", "--allow-address", "l"}), (Words{"loopback", "link-local"}));
  EXPECT_EQ(offered({"verify", "--at", ""}), (Words{}));
  EXPECT_EQ(offered({"refresh", "--deadline", ""}), (Words{}));
  EXPECT_EQ(offered({"verify", "--policy", "2"}), (Words{"2.5.29.32.0"}));
  // As bash breaks words at "=", and as it does when "=" is taken out of COMP_WORDBREAKS.
  EXPECT_EQ(offered({"verify", "--color", "="}), (Words{"auto", "always", "never"}));
  EXPECT_EQ(offered({"verify", "--color", "=", "a"}), (Words{"auto", "always"}));
  EXPECT_EQ(offered({"verify", "--color=n"}), (Words{"--color=never"}));
  EXPECT_EQ(offered({"verify", "--flag=crl_check_"}), (Words{"--flag=CRL_CHECK_ALL"}));
  const std::string list = "digitalSignature,";
  EXPECT_EQ(offered({"simple", "--key-usage", ""}), usagesInHelp());
  EXPECT_EQ(offered({"simple", "--key-usage", "KEYC"}), (Words{"keyCertSign"}));
  EXPECT_EQ(offered({"simple", "--key-usage", list + "enc"}), (Words{list + "encipherOnly"}));
  EXPECT_EQ(offered({"simple", "--key-usage=" + list + "enc"}),
            (Words{"--key-usage=" + list + "encipherOnly"}));
  EXPECT_EQ(offered({"simple", "--color", "a"}), (Words{"auto", "always"}));
  for (const Arguments& texts : {Arguments{"find", "--email", ""},
                                 {"find", "--subject", ""},
                                 {"add", "--email", ""},
                                 {"ocsp", "--uri", ""},
                                 {"ocsp", "--timeout", ""},
                                 {"refresh", "--parallel", ""},
                                 {"refresh", "--share", ""},
                                 {"refresh", "--proxy", ""}}) {
    EXPECT_EQ(offered(texts), (Words{}));
  }
  // After a value comes anything again.
  EXPECT_EQ(offered({"verify", "--color", "auto", "--j"}), (Words{"--json"}));
  EXPECT_EQ(offered({"verify", "--color", "=", "auto", "--j"}), (Words{"--json"}));
}

TEST_F(ToolCompletion, FilesAndDirectories_AreOffered_AlsoWithBlanksInTheirNames) {
  fs::create_directory(own("dir one"));
  writeFile(own("a file.pem"), "");
  writeFile(own("b.pem"), "");
  writeFile(own("-c.pem"), "");
  const Words all = {"dir one", "a file.pem", "b.pem", "-c.pem"};
  for (const char* subcommand : {"verify", "simple", "show", "add", "ocsp"}) {
    EXPECT_EQ(offered({subcommand, ""}), all);
    EXPECT_EQ(offered({subcommand, "b.pem", "a"}), (Words{"a file.pem"}));
    EXPECT_EQ(offered({subcommand, "--json", "b"}), (Words{"b.pem"}));
    EXPECT_EQ(offered({subcommand, "--", "-"}), (Words{"-c.pem"}));
  }
  EXPECT_EQ(offered({"verify", "--untrusted", ""}), all);
  EXPECT_EQ(offered({"verify", "--ca-dir", ""}), (Words{"dir one"}));
  EXPECT_EQ(offered({"verify", "--crl-dir", ""}), (Words{"dir one"}));
  EXPECT_EQ(offered({"verify", "--crl-dir", "=", "d"}), (Words{"dir one"}));
  EXPECT_EQ(offered({"verify", "--ca-dir=d"}), (Words{"--ca-dir=dir one"}));
  EXPECT_EQ(offered({"verify", "--ca-dir", "x"}), (Words{}));
  EXPECT_EQ(offered({"find", "--dir", ""}), (Words{"dir one"}));
  EXPECT_EQ(offered({"add", "--dir", ""}), (Words{"dir one"}));
  EXPECT_EQ(offered({"ocsp", "--chain", ""}), all);
  EXPECT_EQ(offered({"ocsp", "--ca-dir", ""}), (Words{"dir one"}));
  EXPECT_EQ(offered({"find", ""}), (Words{})) << "it takes no file";
  EXPECT_EQ(offered({"crl", ""}), (Words{})) << "it takes no file";
  EXPECT_EQ(offered({"refresh", ""}), (Words{})) << "it takes no file";
  EXPECT_EQ(offered({"refresh", "--uri-list", ""}), all);
  EXPECT_EQ(offered({"refresh", "--certificates", ""}), all);
  EXPECT_EQ(offered({"refresh", "--ca-dir", ""}), (Words{"dir one"}));
  EXPECT_EQ(offered({"refresh", "--allow-address", "lo"}), (Words{"loopback"}));
  EXPECT_EQ(offered({"cache", "flush", ""}), (Words{})) << "it takes no file";
  EXPECT_EQ(offered({"cache", "metrics", "--output", ""}), all);
  EXPECT_EQ(offered({"cache", "list", "--color", ""}), (Words{"auto", "always", "never"}));
}

TEST_F(ToolCompletion, ManPage_HasAllOptionsAndKeys) {
  std::string page = readFile(PKX509_MAN_PAGE);
  page.erase(std::remove(page.begin(), page.end(), '\\'), page.end());
  for (const char* subcommand :
       {"verify", "simple", "show", "find", "add", "crl", "ocsp", "refresh"}) {
    EXPECT_NE(page.find("\n.It Cm " + std::string(subcommand) + "\n"), std::string::npos);
    for (const std::string& option : optionsIn(tool({subcommand, "--help"}).out)) {
      // "--json" is written "Fl -json".
      const std::string tag = option == "--help" ? "\n.It Fl h , Fl " : "\n.It Fl ";
      EXPECT_NE(page.find(tag + option.substr(1)), std::string::npos) << option;
    }
  }
  EXPECT_NE(page.find("\n.It Cm cache\n"), std::string::npos);
  for (const char* action : kCacheActions) {
    EXPECT_NE(page.find("\n.Cm cache " + std::string(action) + "\n"), std::string::npos);
    for (const std::string& option : optionsIn(tool({"cache", action, "--help"}).out)) {
      if (option == "--help") continue;
      EXPECT_NE(page.find("\n.It Fl " + option.substr(1)), std::string::npos) << option;
    }
  }
  EXPECT_NE(page.find("\n.It Fl -version\n"), std::string::npos);
  for (const std::string arguments :
       {"verify --ca-dir ", "verify ", "simple ", "show ", "add ", "find ", "crl ", "ocsp ",
        "refresh ", "cache list", "cache flush "}) {
    EXPECT_NE(page.find("\n$ pkx509 " + arguments), std::string::npos) << arguments;
  }
  const nlohmann::json shown =
      parsed(tool({"show", "--json", person("good"), pki("work/ca-only.crl")}));
  const nlohmann::json verified =
      parsed(tool(verifyWith("good") + Arguments{"--json", person("good")}));
  const nlohmann::json simple = parsed(tool({"simple", "--json", person("good")}));
  const nlohmann::json added = parsed(
      tool({"add", "--json", "--email", "good@example.com", "--dir", own(""), person("good")}));
  const ReservedPort port;
  const std::string nobody = "http://127.0.0.1:" + port.text() + "/";
  const nlohmann::json asked = parsed(tool(
      {"ocsp", "--json", "--uri", nobody, "--chain", pki("intermediates.pem"), person("good")}));
  writeFile(fs::path(kCRLCacheDirectory) / "1.r0", "garbage");
  const nlohmann::json cached = parsed(tool({"cache", "list", "--json"}));
  for (const nlohmann::json& object : {shown.at(0), shown.at(1), verified.at(0), simple.at(0),
                                       added.at(0), asked.at(0), cached.at(0)}) {
    for (const auto& item : object.items()) {
      EXPECT_NE(page.find(item.key()), std::string::npos) << item.key();
    }
  }
  EXPECT_NE(page.find("\n.It Li source\n"), std::string::npos);
}

}  // namespace
}  // namespace Velantrix::Test
