#include "support/PrivateView.h"

#include <filesystem>
#include <stdexcept>

namespace Velantrix::Test {

// private-view.sh puts this link into the directory that it makes for the view.
bool inPrivateView() {
  return std::filesystem::is_symlink(std::filesystem::path("/opsadmin/.pkx509-private-view"));
}

void clearPrivateView() {
  if (!inPrivateView()) throw std::runtime_error("not in a private view of the file system");
  for (const char* directory : {kCADirectory, kCRLDirectory, kAppsDirectory, kCRLCacheDirectory}) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      std::filesystem::remove_all(entry);
    }
  }
}

}  // namespace Velantrix::Test
