// The table of bounds in docs/ARCHITECTURE.md names tests that are there.
#include "house/Tree.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

namespace Velantrix::Test {
namespace {

// The rows below the heading, without those of titles and dashes.
std::vector<std::string> rowsOfBounds(const std::string& document) {
  std::vector<std::string> rows;
  std::istringstream lines(document);
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("## ")) inside = line == "## Bounds";
    if (inside && line.starts_with("| ") && !line.starts_with("| what |")) rows.push_back(line);
  }
  return rows;
}

// "Suite.Case" for each that stands between backticks in the fourth cell.
std::set<std::string> testsIn(const std::string& row) {
  std::istringstream cells(row.substr(1));
  std::string cell;
  for (int i = 0; i < 4; ++i) std::getline(cells, cell, '|');
  if (cells.eof()) return {};
  static const std::regex name("`(\\w+\\.\\w+)`");
  std::set<std::string> tests;
  for (std::sregex_iterator at(cell.begin(), cell.end(), name), end; at != end; ++at) {
    tests.insert((*at)[1]);
  }
  return tests;
}

bool hasTest(const Tree& tree, const std::string& test) {
  const std::size_t dot = test.find('.');
  const std::regex definition("\\nTEST(_F|_P)?\\(" + test.substr(0, dot) + ",\\s+" +
                              test.substr(dot + 1) + "\\)");
  for (const auto& [path, content] : tree) {
    if (content.find(test.substr(dot + 1)) != std::string::npos &&
        std::regex_search(content, definition)) {
      return true;
    }
  }
  return false;
}

TEST(BoundsTable, EveryRowNamesTestsThatExist) {
  const Tree tree = readTree(PKX509_ROOT, {"tests"});
  const std::vector<std::string> rows = rowsOfBounds(readFile(PKX509_ROOT "/docs/ARCHITECTURE.md"));
  EXPECT_GE(rows.size(), 15U);
  for (const std::string& row : rows) {
    const std::set<std::string> tests = testsIn(row);
    EXPECT_FALSE(tests.empty()) << row;
    for (const std::string& test : tests) EXPECT_TRUE(hasTest(tree, test)) << test << ": " << row;
  }
}

TEST(BoundsTable, OfADocument) {
  const std::vector<std::string> rows = rowsOfBounds(
      "| a |\n## Bounds\n\n| what | bound | where | test |\n|---|---|---|---|\n"
      "| files | 3 | `A.h` | `Suite.Case_Of`, `Other.Case` |\n| times | 4 | `B.c` |\n## More\n| b "
      "|");
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(testsIn(rows[0]), (std::set<std::string>{"Other.Case", "Suite.Case_Of"}));
  EXPECT_EQ(testsIn(rows[1]), std::set<std::string>{});
  const Tree tree{{"a.cc", "\nTEST_F(Suite,\n       Case_Of) {"}};
  EXPECT_TRUE(hasTest(tree, "Suite.Case_Of"));
  EXPECT_FALSE(hasTest(tree, "Suite.Case"));
}

}  // namespace
}  // namespace Velantrix::Test
