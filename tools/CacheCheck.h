// `pkx509 cache check`.
#pragma once

#include <string>
#include <vector>

namespace Velantrix::Tool {

struct CacheCheckOptions {
  std::string directory;
  std::vector<std::string> certificates;
};

/// Writes a line for each file of the cache that has a fault.
/// @return an exit status
/// @throws ToolError when the cache, the directory or a file of certificates cannot be read
int checkCache(const CacheCheckOptions& options);

}  // namespace Velantrix::Tool
