// The project's own files, as the tests of its order see them.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

/// Contents of files by their paths below the project's root, with slashes.
using Tree = std::map<std::string, std::string>;

/// All C++ sources and headers below these folders of the root. Throws std::runtime_error when
/// there is none or one cannot be read.
Tree readTree(const std::filesystem::path& root, std::initializer_list<std::string_view> folders);

struct Include {
  unsigned line;
  std::string name;  ///< what stands between the quotes or brackets
};

std::vector<Include> includesOf(const std::string& content);

/// "src/store" for "src/store/Object.cc".
std::string folderOf(const std::string& path);
/// "Object" for "src/store/Object.cc".
std::string stemOf(const std::string& path);

}  // namespace Velantrix::Test
