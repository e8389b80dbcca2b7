// tests/unit mirrors src/: the stem of a source leads to its test.
#include "house/Tree.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <sstream>

namespace Velantrix::Test {
namespace {

struct Elsewhere {
  std::string source;
  std::string test;
  std::string reason;
};

// A line each: source, test, reason; '#' begins a comment.
std::vector<Elsewhere> parseElsewhere(const std::string& text) {
  std::vector<Elsewhere> list;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line.front() == '#') continue;
    std::istringstream words(line);
    Elsewhere entry;
    words >> entry.source >> entry.test;
    std::getline(words >> std::ws, entry.reason);
    list.push_back(entry);
  }
  return list;
}

// "tests/unit/store/ObjectTest.cc" for "src/store/Object.cc".
std::string testOf(const std::string& source) {
  return "tests/unit/" + folderOf(source).substr(std::string_view("src/").size()) + '/' +
         stemOf(source) + "Test.cc";
}

TEST(UnitTests, EverySourceHasItsTestOrStandsOnTheList) {
  const Tree tree = readTree(PKX509_ROOT, {"src", "tests"});
  std::map<std::string, Elsewhere> elsewhere;
  for (const Elsewhere& entry :
       parseElsewhere(readFile(PKX509_ROOT "/tests/unit/tested-elsewhere.txt"))) {
    EXPECT_TRUE(elsewhere.emplace(entry.source, entry).second) << entry.source << " stands twice";
    EXPECT_TRUE(tree.contains(entry.source)) << entry.source << " does not exist";
    EXPECT_TRUE(tree.contains(entry.test)) << entry.test << " does not exist";
    EXPECT_FALSE(tree.contains(testOf(entry.source))) << entry.source << " has a test of its own";
    EXPECT_NE(entry.reason, "") << entry.source;
  }
  for (const auto& [path, content] : tree) {
    if (!path.starts_with("src/") || !path.ends_with(".cc")) continue;
    EXPECT_TRUE(tree.contains(testOf(path)) || elsewhere.contains(path))
        << path << " has no " << testOf(path) << " and is not in tests/unit/tested-elsewhere.txt";
  }
}

// The other way round: what a test is called after is there.
TEST(UnitTests, EveryTestIsCalledAfterASource) {
  const Tree tree = readTree(PKX509_ROOT, {"src", "include", "tests/unit"});
  for (const auto& [path, content] : tree) {
    if (!path.starts_with("tests/unit/") || !path.ends_with("Test.cc")) continue;
    const std::string room = folderOf(path).substr(std::string_view("tests/unit/").size());
    const std::string name = stemOf(path).substr(0, stemOf(path).size() - 4);
    if (name.ends_with("Allocation")) continue;  // takes the memory away from all of a room
    bool found = false;
    for (const auto& [source, ignored] : tree) {
      found = found || (folderOf(source) == "src/" + room && name.starts_with(stemOf(source)));
    }
    EXPECT_TRUE(found) << path << " is called after nothing in src/" << room;
  }
}

}  // namespace
}  // namespace Velantrix::Test
