#include "soak/Cache.h"

#include "integration/OwnNamespaces.h"
#include "support/Files.h"
#include "support/PrivateView.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>

namespace Velantrix::Test::Soak {

namespace {

namespace fs = std::filesystem;

constexpr char kSize[] = "size=4m";

/// Not a name that the library would remove.
fs::path filler() { return fs::path(kCRLCacheDirectory) / "filler"; }

}  // namespace

const char* nameOf(CacheTrouble trouble) {
  constexpr std::array<const char*, 6> kNames = {"well",      "emptied",   "garbage",
                                                 "cut short", "read-only", "full"};
  return kNames.at(static_cast<std::size_t>(trouble));
}

Cache::Cache() { mountMemory(kCRLCacheDirectory, kSize); }

void Cache::trouble(CacheTrouble what) const {
  if (what == CacheTrouble::ReadOnly) {
    mountMemory(kCRLCacheDirectory, kSize, MS_REMOUNT | MS_RDONLY);
  }
  if (what == CacheTrouble::Full) {
    std::ofstream file(filler(), std::ios::binary);
    const std::string block(4096, 'x');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
  }
  for (const auto& entry : fs::directory_iterator(kCRLCacheDirectory)) {
    if (what == CacheTrouble::Emptied) fs::remove(entry.path());
    if (what == CacheTrouble::CutShort) fs::resize_file(entry.path(), entry.file_size() / 2);
    if (what == CacheTrouble::Garbled) {
      writeFile(entry.path(), std::string(entry.file_size() / 2, '\xc3'));
    }
  }
}

void Cache::settle(CacheTrouble what) const {
  if (what == CacheTrouble::ReadOnly) mountMemory(kCRLCacheDirectory, kSize, MS_REMOUNT);
  if (what == CacheTrouble::Full) fs::remove(filler());
}

std::size_t Cache::files() {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator(kCRLCacheDirectory)) {
    count += entry.is_regular_file() ? 1U : 0U;
  }
  return count;
}

}  // namespace Velantrix::Test::Soak
