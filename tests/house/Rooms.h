// The rooms of src/ as pkx509_component() declares them, held against the includes.
#pragma once

#include "house/Tree.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Test {

struct Room {
  std::set<std::string> depends;
  std::map<std::string, std::string> callsUp;  ///< a room above, and the reason
};

struct Rooms {
  std::map<std::string, Room> byName;
  std::map<std::string, std::string> ofHeader;  ///< "velantrix/Uri.h": "foundation/base"
};

/// Reads what CMake wrote down of the declarations. Throws std::runtime_error.
Rooms parseRooms(const std::string& declarations);

/// What in the tree contradicts the declarations, a line each; none when the house is in order.
std::vector<std::string> contradictions(const Rooms& rooms, const Tree& tree);

/// Rooms with more than this share of the lines of src/.
std::vector<std::string> tooLarge(const Tree& tree, double share);

}  // namespace Velantrix::Test
