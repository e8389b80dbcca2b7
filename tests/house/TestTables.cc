#include "house/TestTables.h"

#include <gtest/gtest.h>
#include <regex>
#include <sstream>

namespace Velantrix::Test {

namespace {

std::size_t rankOf(const std::string& line) {
  const std::size_t rank = line.find_first_not_of('#');
  return rank != std::string::npos && line[rank] == ' ' ? rank : 0;
}

bool isRow(const std::string& line) {
  return line.starts_with("| ") && !line.starts_with("| what |");
}

}  // namespace

std::vector<std::string> rowsBelow(const std::string& heading, const std::string& document) {
  std::vector<std::string> rows;
  std::istringstream lines(document);
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t rank = rankOf(line);
    if (rank > 0 && rank <= rankOf(heading)) inside = line == heading;
    if (inside && isRow(line)) rows.push_back(line);
  }
  return rows;
}

std::set<std::string> testsIn(const std::string& row) {
  const std::size_t end = row.rfind('|');
  const std::size_t begin = row.rfind('|', end - 1);
  const std::string cell = row.substr(begin, end - begin);
  static const std::regex name("`(\\w+\\.\\w+)`");
  std::set<std::string> tests;
  for (std::sregex_iterator at(cell.begin(), cell.end(), name), last; at != last; ++at) {
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

void expectTestsInEach(const std::vector<std::string>& rows) {
  const Tree tree = readTree(PKX509_ROOT, {"tests"});
  for (const std::string& row : rows) {
    const std::set<std::string> tests = testsIn(row);
    EXPECT_FALSE(tests.empty()) << row;
    for (const std::string& test : tests) EXPECT_TRUE(hasTest(tree, test)) << test << ": " << row;
  }
}

}  // namespace Velantrix::Test
