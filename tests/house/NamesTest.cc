// An acronym is spelled one way; CONTRIBUTING.md has the rule.
#include "house/Tree.h"

#include <array>
#include <cctype>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace Velantrix::Test {
namespace {

// Public names that are older than the rule, and what is called after them; a constant of OpenSSL.
const std::set<std::string>& fixedNames() {
  static const std::set<std::string> names = {"Uri",
                                              "UriTest",
                                              "DeltaCrlSorter",
                                              "getCrlCallback",
                                              "needCrlCheck",
                                              "NID_id_pkix_OCSP_CrlID"};
  return names;
}

bool isNameCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}
bool isLower(char c) { return std::islower(static_cast<unsigned char>(c)) != 0; }

// Whether a word of the name is this acronym, written as a word: "makeCrl", "Crls", not "Crlf".
bool holdsAsWord(const std::string& name, std::string_view acronym) {
  for (std::size_t at = name.find(acronym); at != std::string::npos;
       at = name.find(acronym, at + 1)) {
    std::size_t end = at + acronym.size();
    if (end < name.size() && name[end] == 's') ++end;
    if (end == name.size() || !isLower(name[end])) return true;
  }
  return false;
}

bool followsTheRule(const std::string& name) {
  if (fixedNames().contains(name)) return true;
  constexpr std::array<std::string_view, 6> kCapitals = {"Asn1", "Crl",  "Http",
                                                         "Ldap", "Ocsp", "Uri"};
  for (const std::string_view acronym : kCapitals) {
    if (holdsAsWord(name, acronym)) return false;
  }
  return true;
}

// The names in a source, without what stands in string literals, which is data.
std::set<std::string> namesIn(const std::string& content) {
  std::set<std::string> names;
  std::string name;
  bool quoted = false;
  for (std::size_t i = 0; i < content.size(); ++i) {
    const char c = content[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (c == '"' && (quoted || i == 0 || content[i - 1] != '\'')) {
      quoted = !quoted;
    } else if (c == '\n') {
      quoted = false;
    } else if (!quoted && isNameCharacter(c)) {
      name += c;
      continue;
    }
    if (!name.empty()) names.insert(std::exchange(name, {}));
  }
  if (!name.empty()) names.insert(name);
  return names;
}

TEST(Names, AcronymsAreSpelledAsTheRuleHasIt) {
  const Tree tree =
      readTree(PKX509_ROOT, {"src", "include", "tools", "tests", "fuzz", "bench", "examples"});
  for (const auto& [path, content] : tree) {
    if (path == "tests/house/NamesTest.cc") continue;
    EXPECT_TRUE(followsTheRule(stemOf(path))) << path;
    for (const std::string& name : namesIn(content)) {
      EXPECT_TRUE(followsTheRule(name)) << path << ": " << name;
    }
  }
}

TEST(Names, Rule) {
  for (const char* name :
       {"makeCRL", "crlNumber", "CRLs", "tlsURI", "Uri", "isHTTP", "Httpd", "Crlf", "LDAPS"}) {
    EXPECT_TRUE(followsTheRule(name)) << name;
  }
  for (const char* name :
       {"makeCrl", "Crls", "OcspBuilder", "tlsUri", "Uris", "kLdapPort", "forUri_", "Asn1"}) {
    EXPECT_FALSE(followsTheRule(name)) << name;
  }
}

TEST(Names, OfASource) {
  EXPECT_EQ(namesIn("int a = f(\"no \\\" name\"); // b\n'\"' c"),
            (std::set<std::string>{"int", "a", "f", "b", "c"}));
}

}  // namespace
}  // namespace Velantrix::Test
