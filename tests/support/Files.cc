#include "support/Files.h"

#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <stdlib.h>
#include <system_error>

namespace Velantrix::Test {

TempDir::TempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "pkx509-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  path_ = name;
}

TempDir::~TempDir() {
  // Tests make directories unreadable; what cannot be entered cannot be removed.
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  for (std::filesystem::recursive_directory_iterator at(path_, ignored), end; at != end;
       at.increment(ignored)) {
    if (at->symlink_status(ignored).type() == std::filesystem::file_type::directory) {
      std::filesystem::permissions(at->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ignored);
    }
  }
  std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::string content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!in.is_open() || in.bad()) throw std::runtime_error("cannot read " + path.string());
  return content;
}

void writeFile(const std::filesystem::path& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace Velantrix::Test
