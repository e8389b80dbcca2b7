// Files for tests: a directory that goes away with its object, whole-file reads and writes.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Velantrix::Test {

/// A new directory under the system's temporary directory, removed with all that is in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string string() const { return path_.string(); }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

/// The whole content. Throws std::runtime_error when the file cannot be read.
std::string readFile(const std::filesystem::path& path);

/// Makes or replaces the file. Throws std::runtime_error when it cannot be written.
void writeFile(const std::filesystem::path& path, std::string_view content);

}  // namespace Velantrix::Test
