// What happens to the directory of fetched CRLs while others use it.
#pragma once

#include <cstddef>

namespace Velantrix::Test::Soak {

enum class CacheTrouble { None, Emptied, Garbled, CutShort, ReadOnly, Full };
const char* nameOf(CacheTrouble trouble);

/// The library's cache directory, with a small file system of its own on it.
class Cache {
 public:
  /// Mounts it. The process has to be in a namespace of its own for mounts.
  Cache();

  void trouble(CacheTrouble what) const;
  /// Ends what goes on: a read-only or a full file system.
  void settle(CacheTrouble what) const;

  static std::size_t files();
};

}  // namespace Velantrix::Test::Soak
