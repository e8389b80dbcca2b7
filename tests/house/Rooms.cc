#include "house/Rooms.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace Velantrix::Test {

namespace {

constexpr std::string_view kSources = "src/";
constexpr std::string_view kHeaders = "include/";

std::size_t linesOf(const std::string& content) {
  return static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n'));
}

class Inspection {
 public:
  Inspection(const Rooms& rooms, const Tree& tree) : rooms_(rooms), tree_(tree) {}

  std::vector<std::string> run() {
    for (const auto& [path, content] : tree_) inspect(path, content);
    for (const auto& [header, room] : rooms_.ofHeader) {
      if (!tree_.contains(std::string(kHeaders) + header)) {
        say(room + " declares the header " + header + ", which does not exist");
      }
    }
    for (const auto& [name, room] : rooms_.byName) {
      inspectDeclarations(name, room);
    }
    return std::move(found_);
  }

 private:
  void say(std::string what) { found_.push_back(std::move(what)); }

  // The room that a file of the project lies in, or none.
  std::optional<std::string> roomOf(const std::string& path) const {
    if (path.starts_with(kHeaders)) {
      const auto header = rooms_.ofHeader.find(path.substr(kHeaders.size()));
      if (header == rooms_.ofHeader.end()) return std::nullopt;
      return header->second;
    }
    std::string folder = folderOf(path).substr(kSources.size() - 1);
    folder.erase(0, 1);
    if (!rooms_.byName.contains(folder)) return std::nullopt;
    return folder;
  }

  // The file of the project that an include in `path` names, or none when it is somebody else's.
  std::optional<std::string> fileOf(const std::string& path, const std::string& include) const {
    for (const std::string& folder :
         {folderOf(path) + '/', std::string(kSources), std::string(kHeaders)}) {
      std::string file = std::filesystem::path(folder + include).lexically_normal().string();
      if (tree_.contains(file)) return file;
    }
    return std::nullopt;
  }

  void inspect(const std::string& path, const std::string& content) {
    const std::optional<std::string> room = roomOf(path);
    if (!room.has_value()) {
      say(path + " lies in no declared room");
      return;
    }
    for (const Include& include : includesOf(content)) {
      const std::optional<std::string> file = fileOf(path, include.name);
      if (!file.has_value()) continue;
      const std::optional<std::string> other = roomOf(*file);
      if (!other.has_value() || *other == *room) continue;
      included_.insert({*room, *other});
      const Room& declared = rooms_.byName.at(*room);
      if (declared.depends.contains(*other) || declared.callsUp.contains(*other)) continue;
      say(path + ":" + std::to_string(include.line) + " includes " + include.name + " of " +
          *other + ", which " + *room + " does not declare");
    }
  }

  void inspectDeclarations(const std::string& name, const Room& room) {
    for (const std::string& lower : room.depends) {
      if (!included_.contains({name, lower})) {
        say(name + " declares " + lower + " and includes nothing of it");
      }
      if (dependsOn(lower, name)) say(name + " and " + lower + " depend on each other");
    }
    for (const auto& [upper, reason] : room.callsUp) {
      if (!included_.contains({name, upper})) {
        say(name + " calls up to " + upper + " and includes nothing of it");
      }
      if (!dependsOn(upper, name)) say(name + " calls up to " + upper + ", which is not above it");
      if (reason.empty()) say(name + " calls up to " + upper + " without a reason");
    }
  }

  // By declared dependencies, over however many rooms.
  bool dependsOn(const std::string& room, const std::string& lower) const {
    std::set<std::string> seen;
    std::vector<std::string> open{room};
    while (!open.empty()) {
      const auto current = rooms_.byName.find(open.back());
      open.pop_back();
      if (current == rooms_.byName.end() || !seen.insert(current->first).second) continue;
      if (current->second.depends.contains(lower)) return true;
      open.insert(open.end(), current->second.depends.begin(), current->second.depends.end());
    }
    return false;
  }

  const Rooms& rooms_;
  const Tree& tree_;
  std::set<std::pair<std::string, std::string>> included_;
  std::vector<std::string> found_;
};

}  // namespace

Rooms parseRooms(const std::string& declarations) {
  Rooms rooms;
  std::istringstream lines(declarations);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string kind;
    std::string room;
    std::string what;
    words >> kind >> room >> what;
    if (kind == "room") {
      rooms.byName[room];
    } else if (kind == "depends") {
      rooms.byName[room].depends.insert(what);
    } else if (kind == "calls-up") {
      std::getline(words >> std::ws, rooms.byName[room].callsUp[what]);
    } else if (kind != "header") {
      throw std::runtime_error("no declaration: " + line);
    } else if (!rooms.ofHeader.emplace(what, room).second) {
      throw std::runtime_error(what + " belongs to two rooms");
    }
  }
  if (rooms.byName.empty()) throw std::runtime_error("no room is declared");
  return rooms;
}

std::vector<std::string> contradictions(const Rooms& rooms, const Tree& tree) {
  return Inspection(rooms, tree).run();
}

std::vector<std::string> tooLarge(const Tree& tree, double share) {
  std::map<std::string, std::size_t> sizes;
  std::size_t total = 0;
  for (const auto& [path, content] : tree) {
    if (!path.starts_with(kSources)) continue;
    sizes[folderOf(path)] += linesOf(content);
    total += linesOf(content);
  }
  std::vector<std::string> large;
  for (const auto& [folder, lines] : sizes) {
    if (static_cast<double>(lines) > share * static_cast<double>(total)) {
      large.push_back(folder + " has " + std::to_string(lines) + " of " + std::to_string(total) +
                      " lines");
    }
  }
  return large;
}

}  // namespace Velantrix::Test
