// Owner of an open directory.
#pragma once

#include "foundation/base/NoCancellation.h"

#include <dirent.h>
#include <memory>

namespace Velantrix {

struct CloseDirectory {
  void operator()(DIR* directory) const noexcept {
    const NoCancellation untilReturn;
    static_cast<void>(::closedir(directory));
  }
};
using OwnedDirectory = std::unique_ptr<DIR, CloseDirectory>;

}  // namespace Velantrix
