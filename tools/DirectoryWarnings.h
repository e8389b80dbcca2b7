// What is wrong with the directories that a verification uses, before it begins: its verdict would not
// always tell.
#pragma once

#include <string>
#include <vector>

namespace Velantrix::Tool {

/// Writes a line to standard error for a directory of trusted certificates that is not there or has none, and
/// for each file in it that cannot be read.
void warnAboutTrustDirectory(const std::string& directory);

/// The same for each file of @p directories and of the machine's own directory of CRLs that cannot be
/// read, and for a cache of CRLs that is not there.
void warnAboutCRLDirectories(const std::vector<std::string>& directories);

}  // namespace Velantrix::Tool
