// The tables of bounds and of leniencies name tests that are there.
#include "house/TestTables.h"
#include "support/Files.h"

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

TEST(BoundsTable, EveryRowNamesTestsThatExist) {
  const std::vector<std::string> rows =
      rowsBelow("## Bounds", readFile(PKX509_ROOT "/docs/ARCHITECTURE.md"));
  EXPECT_GE(rows.size(), 15U);
  expectTestsInEach(rows);
}

TEST(ConformanceTable, EveryRowNamesTestsThatExist) {
  const std::vector<std::string> rows =
      rowsBelow("## Where Verifier is lenient", readFile(PKX509_ROOT "/docs/CONFORMANCE.md"));
  EXPECT_GE(rows.size(), 30U);
  expectTestsInEach(rows);
}

TEST(RefusalsTable, EveryRowNamesTestsThatExist) {
  const std::vector<std::string> rows =
      rowsBelow("## What Verifier refuses and the standards accept",
                readFile(PKX509_ROOT "/docs/CONFORMANCE.md"));
  EXPECT_GE(rows.size(), 5U);
  expectTestsInEach(rows);
}

TEST(TestTables, OfADocument) {
  const std::vector<std::string> rows =
      rowsBelow("## Bounds",
                "| a |\n## Bounds\n\n| what | bound | where | test |\n|---|---|---|---|\n"
                "| files | 3 | `A.h` | `Suite.Case_Of`, `Other.Case` |\n| times | 4 | `B.c` |  |\n"
                "### Part\n| what | test |\n| more | `Third.Case` |\n## More\n| b |\n");
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(testsIn(rows[0]), (std::set<std::string>{"Other.Case", "Suite.Case_Of"}));
  EXPECT_EQ(testsIn(rows[1]), std::set<std::string>{});
  EXPECT_EQ(testsIn(rows[2]), std::set<std::string>{"Third.Case"});
  const Tree tree{{"a.cc", "\nTEST_F(Suite,\n       Case_Of) {"}};
  EXPECT_TRUE(hasTest(tree, "Suite.Case_Of"));
  EXPECT_FALSE(hasTest(tree, "Suite.Case"));
}

}  // namespace
}  // namespace Velantrix::Test
