// What there is to say about rules: the table, and what the documents make of it.
#include "support/Files.h"
#include "unit/report/Samples.h"

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::factsOf;
using Crypto::PKX509::kRules;
using Crypto::PKX509::nameOf;

std::vector<std::string> linesOf(const std::string& document) {
  std::istringstream in(readFile(PKX509_ROOT "/" + document));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What stands between the two, where the line begins with the first of them.
std::string between(const std::string& line, const std::string& before, const std::string& after) {
  if (!line.starts_with(before)) return {};
  const std::size_t end = line.find(after, before.size());
  return end == std::string::npos ? std::string() : line.substr(before.size(), end - before.size());
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

// The rows of the table whose head that is, its first two columns; code is taken out of its marks.
Pairs tableUnder(const std::string& head, const std::string& document) {
  Pairs rows;
  bool inside = false;
  for (const std::string& line : linesOf(document)) {
    if (!inside) {
      inside = line == head;
    } else if (!line.starts_with('|')) {
      break;
    } else if (!line.starts_with("|-")) {
      const std::string first = between(line, "| `", "` | ");
      EXPECT_NE(first, "") << line;
      rows.emplace_back(first, between(line, "| `" + first + "` | ", " |"));
    }
  }
  return rows;
}

Pairs namesAnd(std::string_view (*what)(const RuleFacts&)) {
  Pairs all;
  for (const RuleFacts& facts : kRules) all.emplace_back(facts.name, what(facts));
  return all;
}

std::string_view outcomeOf(const RuleFacts& facts) { return nameOf(facts.outcome); }
std::string_view titleOf(const RuleFacts& facts) { return facts.title; }

struct Section {
  std::string rule;
  std::string text;     // all of it
  std::string example;  // its block of code as one line
};

std::vector<Section> sections() {
  std::vector<Section> all;
  bool fenced = false;
  for (const std::string& line : linesOf("docs/REASONS.md")) {
    if (line.starts_with("# ") || line.starts_with("## ")) {
      all.push_back({between(line, "## `", "`"), "", ""});
    } else if (line == "```") {
      fenced = !fenced;
    } else if (!all.empty()) {
      std::string& example = all.back().example;
      if (fenced) example += (example.empty() ? "" : " ") + line;
      all.back().text += line + '\n';
    }
  }
  return all;
}

TEST(VerificationReportRules, StandInTheOrderOfTheEnumeration) {
  int next = 0;
  for (const RuleFacts& facts : kRules) {
    EXPECT_EQ(static_cast<int>(facts.rule), next++) << facts.name;
    EXPECT_EQ(&factsOf(facts.rule), &facts);
  }
  EXPECT_EQ(static_cast<int>(Rule::kNotVerified) + 1, next);  // the last one
}

TEST(VerificationReportRules, NamesAreOwnLowerCaseAndHyphens) {
  std::set<std::string_view> names;
  for (const RuleFacts& facts : kRules) {
    EXPECT_TRUE(names.insert(facts.name).second) << facts.name;
    EXPECT_FALSE(facts.name.empty());
    EXPECT_EQ(facts.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), std::string_view::npos)
        << facts.name;
    EXPECT_TRUE(facts.name.front() != '-' && facts.name.back() != '-' &&
                facts.name.find("--") == std::string_view::npos)
        << facts.name;
  }
}

TEST(VerificationReportRules, TextsBeginSmallWithoutFullStop) {
  for (const RuleFacts& facts : kRules) {
    EXPECT_FALSE(facts.title.empty()) << facts.name;
    for (const std::string_view text : {facts.title, facts.advice}) {
      if (text.empty()) continue;
      EXPECT_NE(text.back(), '.') << facts.name;
      EXPECT_EQ(text.find('\n'), std::string_view::npos) << facts.name;
      EXPECT_LE(text.size(), 80U) << facts.name;
      const bool acronym = text.starts_with("CRL") || text.starts_with("OCSP");
      EXPECT_TRUE(acronym || std::islower(static_cast<unsigned char>(text.front())) != 0 ||
                  text.starts_with("noRevAvail"))
          << facts.name;
    }
  }
}

TEST(VerificationReportRules, WhatFailsIsNotValidAndHasAdvice) {
  for (const RuleFacts& facts : kRules) {
    const bool letPass =
        facts.rule == Rule::kCallbackAccepted || facts.rule == Rule::kOverrideAccepted;
    EXPECT_EQ(facts.outcome == Outcome::kValid, letPass) << facts.name;
    EXPECT_EQ(facts.advice.empty(), letPass) << facts.name;
  }
}

TEST(VerificationReportRules, DetailNamesAreOwnAndCamelCase) {
  std::set<std::string_view> names;
  for (const std::string_view name : DetailName::kAll) {
    EXPECT_TRUE(names.insert(name).second) << name;
    EXPECT_TRUE(std::islower(static_cast<unsigned char>(name.front())) != 0) << name;
    EXPECT_TRUE(std::all_of(name.begin(), name.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) != 0;
    })) << name;
  }
}

TEST(VerificationReportRules, Reasons_HasASectionForEachInOrder) {
  std::vector<std::string> written;
  for (const Section& section : sections()) {
    if (!section.rule.empty()) written.push_back(section.rule);
  }
  std::vector<std::string> wanted;
  for (const RuleFacts& facts : kRules) wanted.emplace_back(facts.name);
  EXPECT_EQ(written, wanted);
}

TEST(VerificationReportRules, Reasons_SayOutcomeAndWhatToDo) {
  std::map<std::string, const RuleFacts*> facts;
  for (const RuleFacts& one : kRules) facts.emplace(one.name, &one);
  for (const Section& section : sections()) {
    if (!facts.contains(section.rule)) continue;
    EXPECT_NE(section.text.find("*" + std::string(nameOf(facts[section.rule]->outcome)) + "*"),
              std::string::npos)
        << section.rule;
    EXPECT_NE(section.text.find("\n- Look at: "), std::string::npos) << section.rule;
    EXPECT_NE(section.text.find("\n- Do: "), std::string::npos) << section.rule;
    EXPECT_LE(std::count(section.text.begin(), section.text.end(), '\n'), 16) << section.rule;
  }
}

TEST(VerificationReportRules, Reasons_ExamplesAreLines) {
  std::map<std::string, Rule> rules;
  for (const RuleFacts& one : kRules) rules.emplace(one.name, one.rule);
  for (const Section& section : sections()) {
    if (rules.contains(section.rule)) {
      EXPECT_EQ(section.example, lineOfSample(rules[section.rule]));
    }
  }
}

// What the examples rest on.
TEST(VerificationReportRules, SamplesHaveNothingButKnownValues) {
  const std::set<std::string_view> names(std::begin(DetailName::kAll), std::end(DetailName::kAll));
  for (const RuleFacts& facts : kRules) {
    EXPECT_EQ(sampleOf(facts.rule).rule, facts.rule) << facts.name;
    for (const Report::Detail& one : sampleOf(facts.rule).details) {
      EXPECT_TRUE(names.contains(one.name)) << facts.name << ' ' << one.name;
    }
  }
}

TEST(VerificationReportRules, Reasons_TableOfValuesIsComplete) {
  std::vector<std::string> written;
  for (const auto& [name, ignored] : tableUnder("| value | what it is |", "docs/REASONS.md")) {
    written.push_back(name);
  }
  EXPECT_EQ(written,
            std::vector<std::string>(std::begin(DetailName::kAll), std::end(DetailName::kAll)));
}

TEST(VerificationReportRules, Operations_TableHasTheOutcomeOfEach) {
  EXPECT_EQ(tableUnder("| rule | outcome |", "docs/OPERATIONS.md"), namesAnd(outcomeOf));
}

// ".It Cm expired" and the title in the next line, in the section REASONS.
TEST(VerificationReportRules, ManPage_HasNamesAndTitles) {
  Pairs written;
  bool inside = false;
  bool open = false;
  for (const std::string& line : linesOf("docs/man/pkx509.1")) {
    if (line.starts_with(".Sh ")) inside = line == ".Sh REASONS";
    if (!inside) continue;
    if (line.starts_with(".It Cm ")) {
      written.emplace_back(line.substr(7), "");
      open = true;
    } else if (open) {
      written.back().second = line;
      open = false;
    }
  }
  EXPECT_EQ(written, namesAnd(titleOf));
}

}  // namespace
}  // namespace Velantrix::Test
