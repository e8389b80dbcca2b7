#include "store/HashNames.h"

#include "foundation/base/DirectoryListing.h"
#include "foundation/run/VerificationRun.h"
#include "store/DirectoryIndex.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
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

// Of one verification, on its thread.
class RecentLooks {
 public:
  DirectoryLook at(const std::string& directory) {
    const auto now = std::chrono::steady_clock::now();
    const auto found = std::find_if(all_.begin(), all_.end(),
                                    [&](const Look& look) { return look.directory == directory; });
    if (found == all_.end()) {
      all_.push_back({directory, DirectoryLook::now(directory), now});
      return all_.back().look;
    }
    if (now - found->at > std::chrono::milliseconds(1)) {
      found->look = DirectoryLook::now(directory);
      found->at = now;
    }
    return found->look;
  }

 private:
  struct Look {
    std::string directory;
    DirectoryLook look;
    std::chrono::steady_clock::time_point at;
  };

  std::vector<Look> all_;  // a handful
};

}  // namespace

std::optional<unsigned int> HashNames::numberOf(std::string_view fileName) noexcept {
  const std::size_t dot = fileName.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  for (const char c : fileName) {
    if (!kIsNameCharacter[static_cast<unsigned char>(c)]) return std::nullopt;
  }
  return leadingNumber(fileName.substr(0, dot));
}

DirectoryLook DirectoryLook::now(const std::string& directory) {
  DirectoryLook look{FileStamp::at(systemPath(directory))};
  if (!look.seen) look.error = errno;
  return look;
}

DirectoryLook DirectoryLook::recent(const std::string& directory) {
  auto* const looks = VerificationRun::kept<RecentLooks>();
  return looks == nullptr ? now(directory) : looks->at(directory);
}

HashNames HashNames::in(const std::string& directory, unsigned int number,
                        const DirectoryLook& look) {
  HashNames names;
  names.missing = !look.seen && look.error == ENOENT;
  if (names.missing) return names;
  if (const auto index = look.seen ? DirectoryIndex::of(directory, *look.seen) : nullptr) {
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
