// Tables of the documents in which each row names tests.
#pragma once

#include "house/Tree.h"

#include <set>
#include <string>
#include <vector>

namespace Velantrix::Test {

/// The rows of the tables below that heading ("## Bounds"), up to the next one of its rank or above;
/// without those of titles, whose first cell is "what", and of dashes.
std::vector<std::string> rowsBelow(const std::string& heading, const std::string& document);

/// "Suite.Case" for each that stands between backticks in the last cell of the row.
std::set<std::string> testsIn(const std::string& row);

bool hasTest(const Tree& tree, const std::string& test);

/// Fails for a row that names no test, or one that there is not.
void expectTestsInEach(const std::vector<std::string>& rows);

}  // namespace Velantrix::Test
