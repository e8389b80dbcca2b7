#include "store/HashNames.h"

#include "foundation/base/DirectoryListing.h"
#include "store/DirectoryIndex.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>

namespace Velantrix::Crypto::PKX509 {

namespace {

// The set takes 'S' but not 'R'. Directories in use depend on it.
constexpr std::string_view kNameCharacters = " .0123456789ABCDEFabcdefrS";

constexpr std::array<bool, 256> kIsNameCharacter = [] {
  std::array<bool, 256> is{};
  for (const char c : kNameCharacters) is[static_cast<unsigned char>(c)] = true;
  return is;
}();

// Reads the leading number of a file name. What is not a number, or does not fit, is 0.
unsigned int leadingNumber(std::string_view text) noexcept {
  const std::size_t start = text.find_first_not_of(' ');
  if (start == std::string_view::npos) return 0;
  unsigned int number = 0;
  const auto [end, error] =
      std::from_chars(text.data() + start, text.data() + text.size(), number, 16);
  static_cast<void>(end);
  return error == std::errc() ? number : 0;
}

}  // namespace

std::optional<unsigned int> HashNames::numberOf(std::string_view fileName) noexcept {
  const std::size_t dot = fileName.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  for (const char c : fileName) {
    if (!kIsNameCharacter[static_cast<unsigned char>(c)]) return std::nullopt;
  }
  return leadingNumber(fileName.substr(0, dot));
}

HashNames HashNames::in(const std::string& directory, unsigned int number) {
  HashNames names;
  const std::optional<FileStamp> seen = FileStamp::at(systemPath(directory));
  names.missing = !seen && errno == ENOENT;
  if (names.missing) return names;
  if (const auto index = seen ? DirectoryIndex::of(directory, *seen) : nullptr) {
    names.all = index->names(number);
    return names;
  }
  const OwnedDirectory open = openDirectory(directory);
  names.missing = open == nullptr;
  if (names.missing) return names;
  forEachName(open.get(), directory, [&](std::string_view name, bool regular) {
    if (numberOf(name) == number) names.all.push_back({std::string(name), regular});
  });
  std::sort(names.all.begin(), names.all.end());
  return names;
}

}  // namespace Velantrix::Crypto::PKX509
