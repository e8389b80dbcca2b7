#include "house/Tree.h"

#include "support/Files.h"

#include <sstream>
#include <stdexcept>

namespace Velantrix::Test {

namespace fs = std::filesystem;

Tree readTree(const fs::path& root, std::initializer_list<std::string_view> folders) {
  Tree tree;
  for (const std::string_view folder : folders) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / folder)) {
      const fs::path extension = entry.path().extension();
      if (!entry.is_regular_file() || (extension != ".cc" && extension != ".h")) continue;
      tree[entry.path().lexically_relative(root).generic_string()] = readFile(entry.path());
    }
  }
  if (tree.empty()) throw std::runtime_error("no files below " + root.string());
  return tree;
}

std::vector<Include> includesOf(const std::string& content) {
  constexpr std::string_view kSpace = " \t";
  constexpr std::string_view kWord = "include";
  std::vector<Include> includes;
  std::istringstream lines(content);
  unsigned number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    std::size_t place = line.find_first_not_of(kSpace);
    if (place == std::string::npos || line[place] != '#') continue;
    place = line.find_first_not_of(kSpace, place + 1);
    if (place == std::string::npos || line.compare(place, kWord.size(), kWord) != 0) continue;
    place = line.find_first_of("\"<", place);
    const std::size_t end =
        place == std::string::npos ? place : line.find_first_of("\">", place + 1);
    if (end != std::string::npos)
      includes.push_back({number, line.substr(place + 1, end - place - 1)});
  }
  return includes;
}

std::string folderOf(const std::string& path) { return fs::path(path).parent_path().string(); }

std::string stemOf(const std::string& path) { return fs::path(path).stem().string(); }

}  // namespace Velantrix::Test
