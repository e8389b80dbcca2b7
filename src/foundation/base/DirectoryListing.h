// The names in one directory, as they come.
//
//   const OwnedDirectory directory = openDirectory(name);
//   if (directory == nullptr) return;                       // there is none
//   forEachName(directory.get(), name, [&](std::string_view file, bool regular) { ... });
#pragma once

#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/base/OwnedDirectory.h"

#include <cerrno>
#include <dirent.h>
#include <string>
#include <string_view>

namespace Velantrix {

/// Of whoever walks a directory.
inline constexpr Origin kOfDirectories{"File::Selector", "File"};

/// None when there is no such directory.
/// @throws Exception with the path and the reason when it cannot be opened
inline OwnedDirectory openDirectory(const std::string& name) {
  OwnedDirectory directory(::opendir(systemPath(name)));
  const int error = directory == nullptr ? errno : 0;
  if (error != 0 && error != ENOENT) failSystem(kOfDirectories, name, error);
  return directory;
}

/// What may lead to a file, in no order: @p take is called with each name and whether the directory says
/// by itself that it is a regular file.
/// @throws Exception with the path and the reason when the directory cannot be read
template <class Take>
void forEachName(DIR* directory, const std::string& name, const Take& take) {
  while (true) {
    errno = 0;  // readdir() tells the end from a failure by this alone
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread reads from this stream.
    const dirent* const entry = ::readdir(directory);
    if (entry == nullptr) break;
    const unsigned char type = entry->d_type;
    if (type != DT_REG && type != DT_LNK && type != DT_UNKNOWN) continue;
    take(std::string_view(entry->d_name), type == DT_REG);
  }
  if (errno != 0) failSystem(kOfDirectories, name, errno);
}

/// Whether what an attempt to look at a file failed with says that there is none: it is gone in the
/// meantime, or a link that leads nowhere or in a circle.
inline bool leadsNowhere(int error) noexcept {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

}  // namespace Velantrix
